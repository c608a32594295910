#pragma once

#include "ISource.h"

namespace tessel::cli {

/// Cuts a source into pieces, in order.
class CPieceReader {
public:
    /// `sizeBytes` as that of copy(). Data pieces have at most `pieceSize` bytes, a multiple of
    /// copyAlignment.
    CPieceReader(ISource* source, int64 sizeBytes, int pieceSize);

    /// Makes the next piece; false when there are no more. A failure is left in the piece, which is the last.
    bool readNext(CPiece& piece);

    /// Bytes that came from the source. Requires: readNext returned false.
    int64 getSourceBytes() const noexcept { return m_sourceEnd; }
    /// Where the last piece ends. Requires: the same.
    int64 getPosition() const noexcept { return m_position; }
    /// Bytes of the whole copy. Requires: the same.
    int64 getSizeBytes() const noexcept { return m_wanted < 0 ? m_sourceEnd : m_wanted; }

private:
    void readPiece(CPiece& piece);
    USourceRun findAlignedRun();
    int padToUnit(CPiece& piece, int size) const;

    ISource* m_source;
    int m_pieceSize;
    int64 m_wanted;    ///< -1: as much as there is
    int64 m_sourceEnd; ///< INT64_MAX as long as it is not known
    int64 m_position = 0;
    int64 m_dataEnd = 0; ///< up to here everything is data
};

} // namespace tessel::cli
