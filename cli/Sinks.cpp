#include "Sinks.h"

#include "Copy.h"
#include "Errors.h"
#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>
#include <array>

namespace tessel::cli {

namespace {

constexpr std::array<unsigned char, 65536> zeros{};

} // namespace

void CRawSink::write(CPiece& piece) {
    const unsigned char* const data = piece.getBytes();
    const auto size = static_cast<int>(piece.getSizeBytes());
    const auto isHole = [&](int offset) {
        return isZeroMemory(data + offset, static_cast<std::size_t>(std::min(rawHoleUnit, size - offset)));
    };
    for (int start = 0; start < size;) {
        if (isHole(start)) {
            start += rawHoleUnit;
            continue;
        }
        int end = start + rawHoleUnit;
        while (end < size && !isHole(end))
            end += rawHoleUnit;
        end = std::min(end, size);
        m_file->getFile().write(piece.getPosition() + start, data + start, end - start);
        start = end;
    }
}

void COutputSink::write(CPiece& piece) {
    writeOutput(piece.getBytes(), piece.getSizeBytes());
}

void COutputSink::writeZeros(int64, int64 sizeBytes) {
    while (sizeBytes > 0) {
        const int64 piece = std::min<int64>(sizeBytes, zeros.size());
        writeOutput(zeros.data(), piece);
        sizeBytes -= piece;
    }
}

CDiskSink::CDiskSink(CNewDisk* disk, int level)
    : m_disk(disk),
      m_writer(&disk->getDisk(), true),
      m_grainSize(disk->getDisk().getGrainSizeBytes()),
      m_keepsLevel(level < 0) {
    if (!disk->getDisk().getCompressed() || copyAlignment % m_grainSize != 0)
        return;
    m_preparers.emplace(m_grainSize, level);
    if (disk->getParentAside())
        m_parentGrains.emplace(disk->getParentAside());
}

bool CDiskSink::takesStoredGrains(int64 grainSizeBytes) const {
    return m_preparers && !m_parentGrains && m_keepsLevel && grainSizeBytes == m_grainSize;
}

void CDiskSink::prepare(CPiece& piece) {
    if (m_preparers)
        m_disk->run([&] { prepareGrains(piece); });
}

/// Whether a grain must be stored so that these bytes are read there.
bool CDiskSink::mustStore(int64 position, const unsigned char* bytes, TBuffer<unsigned char>& below) {
    const auto size = static_cast<std::size_t>(m_grainSize);
    if (m_parentGrains && m_parentGrains->read(position, m_grainSize, below))
        return !std::equal(bytes, bytes + size, below.getData());
    return !isZeroMemory(bytes, size);
}

void CDiskSink::prepareGrains(CPiece& piece) {
    CPreparerPool::CLease worker(&*m_preparers);
    const std::vector<CPiece::UGrain>& stored = piece.getStored();
    auto nextStored = stored.begin();
    for (int64 at = 0; piece.getSizeBytes() - at >= m_grainSize; at += m_grainSize) {
        const auto offset = static_cast<int>(at);
        if (nextStored != stored.end() && nextStored->offset == offset) {
            piece.addPrepared(*nextStored++);
            continue;
        }
        const unsigned char* const bytes = piece.getBytes() + offset;
        if (!mustStore(piece.getPosition() + at, bytes, worker.getBelow()))
            continue;
        worker.getPlain().assign(bytes, m_grainSize);
        worker.getPreparer().prepareGrainData(&worker.getPlain(), 0, piece.addPrepared(offset).get());
    }
}

void CDiskSink::write(CPiece& piece) {
    m_disk->run([&] { writePiece(piece); });
}

void CDiskSink::writePiece(CPiece& piece) {
    int64 done = 0;
    if (m_preparers) {
        CVMDKDisk& disk = m_disk->getDisk();
        for (const CPiece::UGrain& grain : piece.getPrepared()) {
            disk.seek(piece.getPosition() + grain.offset);
            disk.writePreparedGrainData(*grain.record);
        }
        done = piece.getSizeBytes() / m_grainSize * m_grainSize;
    }
    m_writer.write(piece.getPosition() + done, piece.getBytes() + done, piece.getSizeBytes() - done);
}

void CDiskSink::writeZeros(int64 position, int64 sizeBytes) {
    m_disk->run([&] { m_writer.writeZeros(position, sizeBytes); });
}

} // namespace tessel::cli
