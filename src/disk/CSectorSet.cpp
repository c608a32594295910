#include "disk/CSectorSet.h"

#include <algorithm>
#include <bit>

namespace tessel {

namespace {

/// A run cut to one word: which bits of the word at `index` it takes.
struct UWordPiece {
    int64 index;
    uint64 mask;
};

/// Calls `visit` with the pieces of a run, in order, until it returns false.
template <class Visit>
void visitWords(int64 first, int64 count, Visit visit) {
    while (count > 0) {
        const auto shift = static_cast<int>(first % 64);
        const int64 bits = std::min<int64>(count, 64 - shift);
        const uint64 mask = (bits == 64 ? ~uint64{0} : (uint64{1} << bits) - 1) << shift;
        if (!visit(UWordPiece{first / 64, mask}))
            return;
        first += bits;
        count -= bits;
    }
}

} // namespace

void CSectorSet::add(int64 first, int64 count) {
    constexpr int64 wordsPerChunk = chunkBits / 64;
    visitWords(first, count, [&](const UWordPiece& piece) {
        uint64& word =
            m_chunks[piece.index / wordsPerChunk][static_cast<std::size_t>(piece.index % wordsPerChunk)];
        m_count += std::popcount(piece.mask & ~word);
        word |= piece.mask;
        return true;
    });
}

bool CSectorSet::containsAny(int64 first, int64 count) const {
    constexpr int64 wordsPerChunk = chunkBits / 64;
    bool found = false;
    visitWords(first, count, [&](const UWordPiece& piece) {
        const auto chunk = m_chunks.find(piece.index / wordsPerChunk);
        found = chunk != m_chunks.end() &&
                (chunk->second[static_cast<std::size_t>(piece.index % wordsPerChunk)] & piece.mask) != 0;
        return !found;
    });
    return found;
}

} // namespace tessel
