#pragma once

#include "tessel/CVMDKDisk.h"

namespace tessel {

/// Writes a disk's bytes so that they read back whatever its parents hold: a grain of zeros over a parent's
/// data is stored, which CVMDKDisk::write alone would not do. Grains of zeros that hide nothing stay
/// unstored. Errors are the library's.
class CDiskWriter {
public:
    /// `disk` is borrowed. `isNew`: nothing is in it yet, and grains that equal the parent's are not stored
    /// either.
    CDiskWriter(CVMDKDisk* disk, bool isNew);

    /// Requires: sizeBytes fits the disk.
    void write(int64 position, const unsigned char* data, int64 sizeBytes);
    void writeZeros(int64 position, int64 sizeBytes);
    void flush() { m_disk->flushChanges(); }

private:
    int64 getGrainEnd(int64 position) const;
    bool isHeldByParent(int64 start, int64 end);
    void writeToNewDisk(int64 position, const unsigned char* data, int64 sizeBytes);
    void writeGrain(int64 position, const unsigned char* data, int64 sizeBytes);
    void storeZeroGrain(int64 start, int64 end);
    void writeToDisk(int64 position, const unsigned char* data, int64 sizeBytes);

    CVMDKDisk* m_disk;
    bool m_isNew;
    bool m_hasParent;
    int64 m_grainSize;
    UVMDKGrainRun m_run = {0, 0, UVMDKGrainRun::nowhere};
    TBuffer<unsigned char> m_old;
    TBuffer<unsigned char> m_new;
    TBuffer<unsigned char> m_zeros;
    P<TBuffer<unsigned char>> m_preparedZeros;
};

} // namespace tessel
