#include "CPieceReader.h"

#include "Copy.h"
#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>

namespace tessel::cli {

CPieceReader::CPieceReader(ISource* source, int64 sizeBytes, int pieceSize)
    : m_source(source),
      m_pieceSize(pieceSize),
      m_wanted(sizeBytes < 0 ? source->getSizeBytes() : sizeBytes),
      m_sourceEnd(source->getSizeBytes() < 0 ? INT64_MAX : source->getSizeBytes()) {
    if (m_wanted >= 0)
        m_sourceEnd = std::min(m_sourceEnd, m_wanted);
}

bool CPieceReader::readNext(CPiece& piece) {
    if (m_position >= m_sourceEnd)
        return false;
    try {
        readPiece(piece);
    } catch (...) {
        piece.setZeros(m_position, 0);
        piece.setError(std::current_exception());
        m_sourceEnd = m_position;
    }
    return true;
}

void CPieceReader::readPiece(CPiece& piece) {
    throwIfInterrupted();
    if (m_position >= m_dataEnd) {
        const USourceRun run = findAlignedRun();
        if (!run.isData) {
            piece.setZeros(m_position, run.sizeBytes);
            m_position += run.sizeBytes;
            return;
        }
        m_dataEnd = m_position + run.sizeBytes;
    }
    const int count = static_cast<int>(std::min<int64>(m_dataEnd - m_position, m_pieceSize));
    piece.beginData(m_position);
    const int got = m_source->readPiece(piece, count);
    if (got < count)
        m_sourceEnd = m_position + got;
    piece.setSize(padToUnit(piece, got));
    m_position += piece.getSizeBytes();
}

/// What stands at the position, cut so that it begins and ends at copyAlignment: data grow, zeros shrink.
USourceRun CPieceReader::findAlignedRun() {
    USourceRun run = m_source->findRun(m_position);
    int64 end = run.sizeBytes < m_sourceEnd - m_position ? m_position + run.sizeBytes : m_sourceEnd;
    if (!run.isData)
        end = end == m_sourceEnd ? m_sourceEnd : end / copyAlignment * copyAlignment;
    if (end == m_position) { // zeros that end within the unit
        run.isData = true;
        end = m_position + 1;
    }
    if (run.isData)
        end = m_sourceEnd - end <= copyAlignment ? m_sourceEnd : roundUp(end, copyAlignment);
    return {end - m_position, run.isData};
}

/// Zeros behind the last bytes of the source, up to the next unit or the end of the copy. Returns how many
/// bytes the piece has then.
int CPieceReader::padToUnit(CPiece& piece, int size) const {
    const int64 most = m_wanted < 0 ? size : m_wanted - m_position;
    const auto padded = static_cast<int>(std::min(roundUp(size, copyAlignment), most));
    if (padded > size)
        std::fill(piece.getBytes() + size, piece.getBytes() + padded, static_cast<unsigned char>(0));
    return padded;
}

} // namespace tessel::cli
