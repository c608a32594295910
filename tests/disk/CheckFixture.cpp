#include "CheckFixture.h"

#include "lum/LittleEndian.h"

#include <cstring>

namespace tessel {

void PrintTo(const UVMDKCheckFinding& finding, std::ostream* out) {
    *out << getVMDKCheckKindName(finding.kind) << " severity " << finding.severity << " "
         << finding.uri.getName().toUTF8() << " extent " << finding.extentIndex << " table "
         << finding.tableIndex << " grain " << finding.grainIndex
         << (finding.isRepairable ? " repairable: " : ": ") << finding.message.toUTF8Lossy();
}

namespace test {

namespace {

template <class T>
T load(const std::string& bytes, int64 position) {
    const std::string piece = bytes.substr(static_cast<std::size_t>(position), sizeof(T));
    if (piece.size() != sizeof(T))
        throw std::out_of_range("no such byte in the extent");
    return loadLittleEndian<T>(reinterpret_cast<const unsigned char*>(piece.data()));
}

template <class T>
void store(std::string& bytes, int64 position, T value) {
    unsigned char piece[sizeof(T)];
    storeLittleEndian<T>(piece, value);
    bytes.replace(static_cast<std::size_t>(position), sizeof(T), reinterpret_cast<const char*>(piece),
                  sizeof(T));
}

} // namespace

CExtentBytes::CExtentBytes(std::string contents) : bytes(std::move(contents)) {}

uint32 CExtentBytes::get32(int64 position) const {
    return load<uint32>(bytes, position);
}
void CExtentBytes::put32(int64 position, uint32 value) {
    store(bytes, position, value);
}
uint16 CExtentBytes::get16(int64 position) const {
    return load<uint16>(bytes, position);
}
void CExtentBytes::put16(int64 position, uint16 value) {
    store(bytes, position, value);
}
uint64 CExtentBytes::get64(int64 position) const {
    return load<uint64>(bytes, position);
}
void CExtentBytes::put64(int64 position, uint64 value) {
    store(bytes, position, value);
}

bool CExtentBytes::isCompressed() const {
    return (get32(8) & 0x10000) != 0;
}

int64 CExtentBytes::tableCount() const {
    return static_cast<int64>((get64(12) / get64(20) + 511) / 512);
}

int64 CExtentBytes::slotSizeDirectoryMarker() const {
    const int64 last = tableCount() - 1;
    return (std::max(get32(directoryEntry(last)), get32(redundantDirectoryEntry(last))) + 4) * int64{512};
}

const std::vector<CheckedKind>& checkedKinds() {
    static const std::vector<CheckedKind> kinds = {
        {.name = "plain"},
        {.name = "plain, split", .isSplit = true},
        {.name = "plain, split, on demand", .isSplit = true, .isOnDemand = true},
        {.name = "plain, encrypted", .password = "secret"},
        {.name = "plain child", .isChild = true},
        {.name = "compressed", .isCompressed = true},
        {.name = "compressed, split", .isCompressed = true, .isSplit = true},
        {.name = "compressed, encrypted", .isCompressed = true, .password = "secret"},
        {.name = "compressed, split, encrypted", .isCompressed = true, .isSplit = true, .password = "secret"},
        {.name = "compressed child", .isCompressed = true, .isChild = true},
    };
    return kinds;
}

std::vector<Finding> withoutDeadSpace(std::vector<Finding> findings) {
    std::erase_if(findings, [](const Finding& finding) { return finding.kind == Finding::Kind_DeadSpace; });
    return findings;
}

void CheckTest::makeDisk(const CheckedKind& kind) {
    for (const std::string& name : listFiles())
        m_memory->deleteFile(uri(String(name.c_str())), true);
    DiskOptions options{.size = 96 * MiB,
                        .password = kind.password,
                        .compressed = kind.isCompressed,
                        .limit = kind.isSplit ? (kind.isCompressed ? 112 * MiB : 56 * MiB) : -1,
                        .onDemand = kind.isOnDemand};
    if (kind.isChild) {
        const P<CVMDKDisk> parent =
            create({.size = 96 * MiB, .compressed = kind.isCompressed}, "parent.vmdk");
        options.parentPath = "parent.vmdk";
        options.parentID = parent->getDescriptor()->getContentID();
    }
    const P<CVMDKDisk> disk = create(options);
    TArray<P<CVMDKExtentInfo>> extents;
    disk->getDescriptor()->getExtentEntries(extents);
    int64 start = 0;
    for (const auto& extent : extents) {
        for (const int64 grain : writtenGrains) {
            Bytes data = randomBytes(static_cast<unsigned>(start + grain), grainBytes);
            if (grain % 2 == 1)
                std::fill(data.begin() + 20000, data.end(), 0x20);
            if (grain < extent->getSizeSectors() / 128)
                writeAt(*disk, start * 512 + grain * grainBytes, data);
        }
        start += extent->getSizeSectors();
    }
    disk->flushChanges();
}

std::vector<String> CheckTest::extentNames() const {
    const P<IIOStream> stream = m_memory->openFile(uri("disk.vmdk"), forReading);
    const P<CVMDKDescriptorAccessor> accessor(new CVMDKDescriptorAccessor(stream.get(), forReading));
    TArray<P<CVMDKExtentInfo>> extents;
    accessor->getDescriptor()->getExtentEntries(extents);
    std::vector<String> names;
    for (const auto& extent : extents)
        names.push_back(extent->getFilename());
    return names;
}

void CheckTest::spoil(const String& name, const std::function<void(CExtentBytes&)>& change) {
    CExtentBytes extent(getFile(name));
    change(extent);
    putFile(name, extent.bytes);
}

std::vector<Finding> CheckTest::check(const char* password, bool quick, const String& name) {
    const P<CFindings> findings(new CFindings);
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files(), uri(name)));
    checker->check(password, quick, *findings);
    int64 counts[3] = {};
    for (const Finding& finding : findings->all)
        ++counts[finding.severity];
    EXPECT_EQ(checker->getDamageCount(), counts[Finding::Severity_Damage]);
    EXPECT_EQ(checker->getInformationCount(), counts[Finding::Severity_Information]);
    EXPECT_EQ(checker->getUncheckedCount(), counts[Finding::Severity_Unchecked]);
    return findings->all;
}

} // namespace test
} // namespace tessel
