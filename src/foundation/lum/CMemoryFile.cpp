#include "foundation/lum/CMemoryFile.h"

#include <algorithm>
#include <cstring>

namespace lum {

namespace {

constexpr int64 pieceSize = 64 * 1024;

/// Calls `handle(piece index, offset in the piece, offset in the range, bytes)` for each piece that a
/// range of positions touches.
template <class Handler>
void forEachPiece(int64 position, int count, Handler handle) {
    for (int done = 0; done < count;) {
        const int64 offset = (position + done) % pieceSize;
        const int size = static_cast<int>(std::min<int64>(pieceSize - offset, count - done));
        handle((position + done) / pieceSize, offset, done, static_cast<std::size_t>(size));
        done += size;
    }
}

} // namespace

int64 CMemoryFile::getLength() const {
    const std::lock_guard guard(m_mutex);
    return m_length;
}

int CMemoryFile::read(int64 position, unsigned char* buffer, int count) const {
    const std::lock_guard guard(m_mutex);
    const int available = static_cast<int>(std::clamp<int64>(m_length - position, 0, count));
    forEachPiece(position, available, [&](int64 index, int64 offset, int done, std::size_t size) {
        const auto found = m_pieces.find(index);
        if (found == m_pieces.end())
            std::memset(buffer + done, 0, size);
        else
            std::memcpy(buffer + done, found->second.get() + offset, size);
    });
    return available;
}

void CMemoryFile::write(int64 position, const unsigned char* data, int size) {
    const std::lock_guard guard(m_mutex);
    // Pieces first: when memory runs out, nothing has changed.
    forEachPiece(position, size, [&](int64 index, int64, int, std::size_t) {
        if (!m_pieces.contains(index))
            m_pieces.emplace(index, std::make_unique<unsigned char[]>(pieceSize));
    });
    forEachPiece(position, size, [&](int64 index, int64 offset, int done, std::size_t bytes) {
        std::memcpy(m_pieces[index].get() + offset, data + done, bytes);
    });
    m_length = std::max(m_length, position + size);
}

void CMemoryFile::setLength(int64 length) {
    const std::lock_guard guard(m_mutex);
    const auto last = m_pieces.find(length / pieceSize);
    if (last != m_pieces.end())
        std::memset(last->second.get() + length % pieceSize, 0,
                    static_cast<std::size_t>(pieceSize - length % pieceSize));
    m_pieces.erase(m_pieces.upper_bound(length / pieceSize), m_pieces.end());
    m_length = length;
}

bool CMemoryFile::tryLock(const void* holder, int64 start, int64 end, bool exclusive) {
    const std::lock_guard guard(m_mutex);
    const bool excluded = std::any_of(m_locks.begin(), m_locks.end(), [&](const Lock& lock) {
        return lock.holder != holder && lock.start < end && start < lock.end && (lock.exclusive || exclusive);
    });
    if (!excluded)
        m_locks.push_back({holder, start, end, exclusive});
    return !excluded;
}

void CMemoryFile::unlock(const void* holder, int64 start, int64 end) noexcept {
    const std::lock_guard guard(m_mutex);
    std::erase_if(m_locks, [&](const Lock& lock) {
        return lock.holder == holder && lock.start == start && lock.end == end;
    });
}

} // namespace lum
