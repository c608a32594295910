#include "CDiskWriter.h"

#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

namespace {

bool isZero(const TBuffer<unsigned char>& bytes) {
    return isZeroMemory(bytes.getData(), static_cast<std::size_t>(bytes.getUsed()));
}

} // namespace

CDiskWriter::CDiskWriter(CVMDKDisk* disk, bool isNew)
    : m_disk(disk),
      m_isNew(isNew),
      m_hasParent(!disk->getParentDiskMainURI().isEmpty()),
      m_grainSize(disk->getGrainSizeBytes()) {}

int64 CDiskWriter::getGrainEnd(int64 position) const {
    const int64 start = position / m_grainSize * m_grainSize;
    return m_disk->getSizeBytes() - start < m_grainSize ? m_disk->getSizeBytes() : start + m_grainSize;
}

/// Whether any byte of the range, which lies in one grain that this disk does not hold, comes from a parent.
bool CDiskWriter::isHeldByParent(int64 start, int64 end) {
    for (int64 position = start; position < end;) {
        // Grains of a parent may be smaller than this disk's.
        if (position < m_run.position || position - m_run.position >= m_run.sizeBytes)
            m_run = m_disk->findGrainRun(position);
        if (m_run.layer > 0)
            return true;
        if (m_run.layer == 0)
            return false;
        position = m_run.position + m_run.sizeBytes;
    }
    return false;
}

void CDiskWriter::writeToDisk(int64 position, const unsigned char* data, int64 sizeBytes) {
    constexpr int64 most = 1 << 30;
    if (sizeBytes == 0)
        return;
    m_disk->seek(position);
    for (int64 done = 0; done < sizeBytes;) {
        const int64 piece = std::min(sizeBytes - done, most);
        m_disk->write(data + done, static_cast<int>(piece));
        done += piece;
    }
}

/// Writes what is not in grains of zeros. The disk would not store those either, but it would make the file
/// of an extent for them where that is made on demand.
void CDiskWriter::writeToNewDisk(int64 position, const unsigned char* data, int64 sizeBytes) {
    int64 start = 0;
    for (int64 at = 0; at < sizeBytes;) {
        const int64 end = at + std::min(sizeBytes - at, getGrainEnd(position + at) - (position + at));
        if (isZeroMemory(data + at, static_cast<std::size_t>(end - at))) {
            writeToDisk(position + start, data + start, at - start);
            start = end;
        }
        at = end;
    }
    writeToDisk(position + start, data + start, sizeBytes - start);
}

void CDiskWriter::write(int64 position, const unsigned char* data, int64 sizeBytes) {
    if (!m_hasParent && m_isNew) {
        writeToNewDisk(position, data, sizeBytes);
        return;
    }
    if (!m_hasParent) {
        writeToDisk(position, data, sizeBytes);
        return;
    }
    m_run.sizeBytes = 0; // this disk may hold more by now
    while (sizeBytes > 0) {
        const int64 piece = std::min(sizeBytes, getGrainEnd(position) - position);
        writeGrain(position, data, piece);
        position += piece;
        data += piece;
        sizeBytes -= piece;
    }
}

void CDiskWriter::writeZeros(int64 position, int64 sizeBytes) {
    if (m_isNew && !m_hasParent)
        return;
    m_zeros.setUsed(m_grainSize);
    m_run.sizeBytes = 0;
    while (sizeBytes > 0) {
        const UVMDKGrainRun run = m_disk->findGrainRun(position);
        const int64 end = std::min(position + sizeBytes, run.position + run.sizeBytes);
        const int64 pieceEnd =
            run.layer == UVMDKGrainRun::nowhere ? end : std::min(position + sizeBytes, getGrainEnd(position));
        if (run.layer != UVMDKGrainRun::nowhere)
            writeGrain(position, m_zeros.getData(), pieceEnd - position);
        sizeBytes -= pieceEnd - position;
        position = pieceEnd;
    }
}

/// Writes bytes of one grain.
void CDiskWriter::writeGrain(int64 position, const unsigned char* data, int64 sizeBytes) {
    const int64 start = position / m_grainSize * m_grainSize;
    const int64 end = getGrainEnd(position);
    if (!isHeldByParent(start, end)) {
        writeToDisk(position, data, sizeBytes);
        return;
    }
    m_old.setUsed(end - start);
    m_disk->seek(start);
    m_disk->read(m_old.getData(), static_cast<int>(end - start));
    m_new = m_old;
    std::copy_n(data, sizeBytes, m_new.getData() + (position - start));
    if (m_isNew && m_new == m_old)
        return;
    if (!isZero(m_new))
        writeToDisk(position, data, sizeBytes);
    else if (!isZero(m_old))
        storeZeroGrain(start, end);
}

/// Stores a grain of zeros where m_old is the parent's.
void CDiskWriter::storeZeroGrain(int64 start, int64 end) {
    if (end - start < m_grainSize) {
        // Part of a grain at the disk's end has no prepared form. Once the parent's data are stored here,
        // zeros over them are stored too.
        writeToDisk(start, m_old.getData(), end - start);
        m_disk->flushChanges();
        writeToDisk(start, m_new.getData(), end - start);
        return;
    }
    if (!m_preparedZeros) {
        const P<TBuffer<unsigned char>> plain(new TBuffer<unsigned char>(m_grainSize));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        m_preparedZeros = m_disk->createDataPreparer()->prepareGrainData(plain.get(), 0, aux.get());
    }
    m_disk->seek(start);
    m_disk->writePreparedGrainData(*m_preparedZeros);
}

} // namespace tessel
