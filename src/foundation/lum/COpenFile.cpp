#include "foundation/lum/COpenFile.h"

#include "foundation/lum/StreamHelpers.h"
#include "lum/CFileSystemError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace lum {

class COpenFile::CLock final : public CBase, public IStreamLock {
public:
    CLock(COpenFile* file, const Range& range) : m_file(file), m_range(range) {}
    ~CLock() override { unlock(); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    void setHeld() noexcept { m_held = true; }
    void unlock() noexcept override {
        if (m_held)
            m_file->letGo(m_range);
        m_held = false;
    }

private:
    P<COpenFile> m_file;
    Range m_range;
    bool m_held = false;
};

P<IStreamLock> COpenFile::lockRange(int64 start, int64 length, bool exclusive) {
    const auto makeProps = [&] { return makeStreamProps(m_uri).add("start", start).add("length", length); };
    Range range{start, INT64_MAX};
    if (start < 0 || length < 0 || (length > 0 && !tryAdd(start, length, range.end)))
        throw CInvalidArgError("IStreamBase::lockRange", "Invalid range.", makeProps());

    // Everything that may run out of memory comes before the lock, which nobody would release then.
    P<CLock> lock(new CLock(this, range));
    m_locked.reserve(m_locked.size() + 1);
    const bool overlapsOwn = std::any_of(m_locked.begin(), m_locked.end(), [&](const Range& other) {
        return range.start < other.end && other.start < range.end;
    });
    if (overlapsOwn || !tryLock(range.start, range.end, exclusive))
        throw CFileSystemError(
            CFileSystemError::Problem_Locked,
            CError("Cannot lock file: It is locked by another user or process.", String(), -1, makeProps()));
    m_locked.push_back(range);
    lock->setHeld();
    return lock;
}

void COpenFile::letGo(const Range& range) noexcept {
    const auto found = std::find_if(m_locked.begin(), m_locked.end(),
                                    [&](const Range& other) { return other.start == range.start; });
    if (found == m_locked.end())
        return; // the file was closed meanwhile
    m_locked.erase(found);
    unlock(range.start, range.end);
}

void COpenFile::close() {
    // Said aloud, because a forked process that still has the file open would keep the locks.
    for (const Range& range : m_locked)
        unlock(range.start, range.end);
    m_locked.clear();
    closeFile();
}

} // namespace lum
