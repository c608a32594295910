#pragma once

#include "../disk/DiskTest.h"

#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tessel::test {

/// A kind of disk whose failures are tried. The disk is "disk.vmdk", its parent, if any, "parent.vmdk".
struct UDiskKind {
    const char* name;
    DiskOptions options = {};
    bool isChild = false;
    /// 0: made by CVMDKDisk::create, with its grains. Else three extents of grains of this size, the last
    /// two of which are made on demand: small grains go through the streams' buffers, large ones past them.
    int64 grainSizeSectors = 0;

    bool isEncrypted() const { return *options.password != '\0'; }
    bool isOnDemand() const { return options.onDemand || grainSizeSectors > 0; }
    bool isSplit() const { return options.limit > 0 || grainSizeSectors > 0; }
};

void PrintTo(const UDiskKind& kind, std::ostream* out);

const UDiskKind& getDiskKind(const std::string& name);

/// The grains that the tests look at, by what was made of them before.
enum Place {
    placeFresh,     ///< never written
    placeMoved,     ///< written with what compresses well, so that it moves when it no longer does
    placeInPlace,   ///< written with what does not compress, so that it stays in its slot
    placeNeighbour, ///< written, and not changed again
    placePartly,    ///< as placeInPlace; changed in part
    placePrepared,  ///< never written
    placeInherited, ///< never written; a parent has it
    placeFar,       ///< in another extent: never written where extents are made on demand, else written
    placeFarFresh,  ///< in the last extent, never written
    placeLast,      ///< the disk's last grain, never written
    placeCount
};

struct UPlace {
    int64 position = 0;   ///< in the disk, at a grain's start
    Bytes contents = {};  ///< a grain
    bool hasSlot = false; ///< in the disk itself, not in its parent
};

/// Sets disks up and looks at them. Setting up means copying files, so that it can be done thousands of
/// times.
class DiskKindTest : public DiskTest {
protected:
    /// Makes the disk, writes the places that are to be written, and keeps the files.
    void makeFiles(const UDiskKind& kind);
    /// Puts the files back as makeFiles left them, into a new m_memory, which m_files then is.
    void restoreFiles();
    void useFiles(const P<CMemoryFileSystem>& files);

    const UDiskKind& kind() const { return *m_kind; }
    int64 getGrainSize() const { return m_grainSize; }
    const std::vector<UPlace>& getPlaces() const { return m_places; }
    unsigned int getContentID() const { return m_contentID; }

    P<CVMDKDisk> openDisk(IIOStream::Access access, const String& name = "disk.vmdk") {
        return open(access, name, kind().options.password);
    }
    /// A grain of data that compress well, or not at all; never zeros.
    Bytes compressibleData(unsigned seed) const;
    const Bytes& randomData(unsigned seed) const;
    void writePrepared(CVMDKDisk& disk, int64 position, const Bytes& grain) const;
    /// Nothing where the grain cannot be read.
    std::optional<Bytes> tryRead(CVMDKDisk& disk, int64 position) const;

    /// True for what a rewrite in its place that was cut in the middle may leave of a grain: an error
    /// where it is compressed; else of each sector one of the versions. The cipher chains sectors, so that
    /// the first block behind a cut is lost where a grain is encrypted.
    bool mayBeCutRewrite(const std::optional<Bytes>& found, const std::vector<Bytes>& versions) const;

private:
    void makeDisk();
    void makeSmallGrainedDisk();
    void quickenKeyDerivation(CVMDKDescriptor& descriptor) const;
    void choosePlaces(CVMDKDisk& disk);
    void writePlaces();

    const UDiskKind* m_kind = nullptr;
    int64 m_grainSize = 0;
    std::vector<UPlace> m_places;
    unsigned int m_contentID = 0;
    std::map<std::string, std::string> m_savedFiles;
    mutable std::map<unsigned, Bytes> m_randomData; ///< of the grain size
};

} // namespace tessel::test
