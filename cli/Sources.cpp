#include "Sources.h"

#include "Copy.h"
#include "Errors.h"
#include "Names.h"
#include "StoredGrain.h"

#include <algorithm>

namespace tessel::cli {

USourceRun CRawSource::findRun(int64 position) {
    if (position >= m_data.end || position < m_holeStart) {
        m_data = m_file.findData(position, m_size);
        m_holeStart = position;
        // What was cut off looks like a hole that reaches to the end.
        if (m_data.start >= m_size && m_file.getLength() < m_size)
            throw CFailure(nameFromPath(m_file.getPath()), "The file became shorter while it was read");
    }
    return position < m_data.start ? USourceRun{m_data.start - position, false}
                                   : USourceRun{std::max<int64>(m_data.end - position, 1), true};
}

int CRawSource::read(int64 position, unsigned char* buffer, int count) {
    m_file.read(position, buffer, count);
    return count;
}

int CInputSource::read(int64, unsigned char* buffer, int count) {
    const int got = readInput(buffer, count);
    if (got < count && m_size >= 0)
        throw CFailure("standard input", "The file became shorter while it was read");
    return got;
}

CDiskSource::CDiskSource(std::string name, CVMDKDisk* disk)
    : m_name(std::move(name)), m_disk(disk), m_grainSize(disk->getGrainSizeBytes()) {
    if (disk->getCompressed() && m_grainSize <= largestPiece)
        m_preparers.emplace(m_grainSize, -1);
}

/// The run that holds `position`.
const UVMDKGrainRun& CDiskSource::lookUp(int64 position) {
    if (position < m_run.position || position - m_run.position >= m_run.sizeBytes)
        m_run = m_disk->findGrainRun(position);
    return m_run;
}

void CDiskSource::readBytes(int64 position, unsigned char* buffer, int64 count) {
    m_disk->seek(position);
    m_disk->read(buffer, static_cast<int>(count));
}

USourceRun CDiskSource::findRun(int64 position) {
    return about(m_name, [&] {
        const UVMDKGrainRun& run = lookUp(position);
        return USourceRun{run.position + run.sizeBytes - position, run.layer != UVMDKGrainRun::nowhere};
    });
}

int CDiskSource::read(int64 position, unsigned char* buffer, int count) {
    return about(m_name, [&] {
        readBytes(position, buffer, count);
        return count;
    });
}

int CDiskSource::readPiece(CPiece& piece, int count) {
    const int64 start = piece.getPosition();
    if (!m_preparers)
        return read(start, piece.getBytes(), count);
    return about(m_name, [&] {
        for (int64 position = start; position < start + count;) {
            const UVMDKGrainRun& run = lookUp(position);
            const int64 grainEnd = (position / m_grainSize + 1) * m_grainSize;
            const bool isWhole = position % m_grainSize == 0 && grainEnd <= start + count &&
                                 grainEnd <= run.position + run.sizeBytes;
            const int64 end = std::min(grainEnd, start + count);
            const auto offset = static_cast<int>(position - start);
            if (isWhole && run.layer != UVMDKGrainRun::nowhere && run.isStoredAlike) {
                m_disk->seek(position);
                TBuffer<unsigned char>& record = piece.addStored(offset);
                m_disk->readPreparedGrainData(record);
                verifyIsRecordOf(m_name, position, record);
            } else {
                readBytes(position, piece.getBytes() + offset, end - position);
            }
            position = end;
        }
        return count;
    });
}

void CDiskSource::unpack(CPiece& piece, bool all) {
    if (piece.getStored().empty())
        return;
    about(m_name, [&] {
        CPreparerPool::CLease worker(&*m_preparers);
        CVMDKDataPreparer& preparer = worker.getPreparer();
        const int64 mostBytes = preparer.getWorstCaseGrainSizeSectors() * vmdkSectorSize;
        piece.dropStored([&](const CPiece::UGrain& grain) {
            if (!all && mayPassAsStored(*grain.record, m_grainSize, mostBytes))
                return false;
            preparer.unprepareGrainData(grain.record.get(), &worker.getPlain());
            std::copy_n(worker.getPlain().getData(), m_grainSize, piece.getBytes() + grain.offset);
            return true;
        });
    });
}

} // namespace tessel::cli
