#pragma once

#include "CDiskWriter.h"
#include "CParameters.h"
#include "lum/CConfinedFileSystem.h"

namespace tessel::nbdkit {

/// The disk that is served, to all clients alike. One thread at a time. Positions and sizes are in bytes;
/// that they lie in the disk is for the caller to know. Errors are the library's.
class CServedDisk {
public:
    /// A run of bytes that are all held somewhere, or all zeros that nobody holds.
    struct URun {
        int64 end;
        bool isHole;
    };

    /// Opens the disk, all its files and its parents, so that what is missing is told at once. `parameters`
    /// are not kept.
    CServedDisk(IFileSystem* files, const CParameters& parameters);

    CURI getFile() const { return m_disk->getMainFileURI(); }
    int64 getSizeBytes() const { return m_disk->getSizeBytes(); }
    int64 getGrainSizeBytes() const { return m_grainSize; }
    bool isWritable() const noexcept { return m_isWritable; }
    /// Whether trim() has an effect that is worth its time: grains of zeros are a few bytes each.
    bool canTrim() const { return m_isWritable && m_disk->getCompressed(); }

    void read(int64 position, void* buffer, int64 sizeBytes);
    void write(int64 position, const void* data, int64 sizeBytes);
    void writeZeros(int64 position, int64 sizeBytes);
    /// Whether writeZeros() takes less time than writing as many other bytes.
    bool isZeroingFast(int64 position, int64 sizeBytes);
    /// Makes zeros of the whole grains in a range that this disk itself holds. What is a parent's stays:
    /// zeros over it would take room, not free it.
    void trim(int64 position, int64 sizeBytes);
    URun findRun(int64 position);
    /// All that was written, by whomever, is on the medium afterwards. Does nothing when nothing was written
    /// since the last time.
    void flush();

private:
    CServedDisk(const P<CConfinedFileSystem>& files, const CParameters& parameters);
    void openParents(IFileSystem* files, const String& password);
    void verifyExtents();

    P<CVMDKDisk> m_disk;
    /// Held open so that nobody changes them; the disk opens its own when it needs them.
    TArray<P<CVMDKDisk>> m_parents;
    CDiskWriter m_writer;
    int64 m_grainSize;
    bool m_isWritable;
    bool m_isChanged = false;
};

} // namespace tessel::nbdkit
