#pragma once

#include "DiskTest.h"
#include "tessel/CVMDKDiskChecker.h"
#include "tessel/CVMDKSparseExtentHeader.h"

#include <optional>

namespace tessel::test {

using Finding = UVMDKCheckFinding;

/// Keeps what is found.
class CFindings : public CBase, public IVMDKCheckReport {
public:
    void addFinding(const Finding& finding) override { all.push_back(finding); }
    void onProgress(int64 position) override { lastPosition = position; }

    std::vector<Finding> all;
    int64 lastPosition = -1;
};

/// An extent file as bytes, found and changed by what they mean.
class CExtentBytes {
public:
    explicit CExtentBytes(std::string contents);

    std::string bytes;

    bool isCompressed() const;
    uint32 get32(int64 position) const;
    void put32(int64 position, uint32 value);
    void put16(int64 position, uint16 value);
    uint16 get16(int64 position) const;
    uint64 get64(int64 position) const;
    void put64(int64 position, uint64 value);
    /// Changes one byte.
    void flip(int64 position) { at(position) = static_cast<char>(at(position) ^ 0x55); }
    char& at(int64 position) { return bytes.at(static_cast<std::size_t>(position)); }
    int64 size() const { return static_cast<int64>(bytes.size()); }

    // Positions in bytes of what belongs to a table or grain.

    int64 directoryEntry(int64 table) const { return directory(56) + 4 * table; }
    int64 redundantDirectoryEntry(int64 table) const { return directory(48) + 4 * table; }
    int64 slotSizeDirectoryMarker() const;
    int64 slotSizeDirectoryEntry(int64 table) const { return slotSizeDirectoryMarker() + 512 + 4 * table; }
    int64 entry(int64 grain) const {
        return get32(directoryEntry(grain / 512)) * int64{512} + grain % 512 * 4;
    }
    int64 redundantEntry(int64 grain) const {
        return get32(redundantDirectoryEntry(grain / 512)) * int64{512} + grain % 512 * 4;
    }
    int64 slotSize(int64 grain) const {
        return get32(slotSizeDirectoryEntry(grain / 512)) * int64{512} + grain % 512 * 2;
    }
    int64 slot(int64 grain) const { return get32(entry(grain)) * int64{512}; }
    int64 trail() const { return size() - 1536; }

    void putBothEntries(int64 grain, uint32 sector) {
        put32(entry(grain), sector);
        put32(redundantEntry(grain), sector);
    }

private:
    int64 directory(int64 field) const { return static_cast<int64>(get64(field)) * 512; }
    int64 tableCount() const;
};

/// A kind of disk that is spoiled.
struct CheckedKind {
    const char* name;
    bool isCompressed = false;
    bool isSplit = false;
    const char* password = "";
    bool isChild = false;
    bool isOnDemand = false;
};

/// All kinds.
const std::vector<CheckedKind>& checkedKinds();

/// Disks of several tables, in which some grains of each extent are written: the first three and the sixth of
/// its first table, and the first three of its second.
class CheckTest : public DiskTest {
protected:
    static constexpr int64 writtenGrains[] = {0, 1, 2, 5, 512, 513, 514};

    void makeDisk(const CheckedKind& kind);
    P<CVMDKDisk> openKind(const CheckedKind& kind) { return open(forWriting, "disk.vmdk", kind.password); }
    /// The files of the disk's extents.
    std::vector<String> extentNames() const;
    void spoil(const String& name, const std::function<void(CExtentBytes&)>& change);

    std::vector<Finding> check(const char* password = "", bool quick = false,
                               const String& name = "disk.vmdk");
    std::vector<Finding> quickCheck() { return check("", true); }
};

/// Findings without those that tell of dead space.
std::vector<Finding> withoutDeadSpace(std::vector<Finding> findings);

/// A finding of this kind is among them.
MATCHER_P(HasFinding, kind, std::string("has a finding ") + getVMDKCheckKindName(kind)) {
    return std::any_of(arg.begin(), arg.end(),
                       [this](const Finding& finding) { return finding.kind == kind; });
}

} // namespace tessel::test

namespace tessel {
void PrintTo(const UVMDKCheckFinding& finding, std::ostream* out);
}
