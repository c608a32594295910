#pragma once

#include "CForwardingStream.h"
#include "lum/CMemoryFileSystem.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace tessel::test {

/// Hands every call on to a memory file system and keeps, from start() on, what changes any file, in order
/// and with its bytes: so all files can be put together as a loss of power would leave them.
///
/// What was written to a file is durable when a stream of that file was flushed behind it. Names that were
/// made or deleted are durable when a stream that made its file is flushed for the first time, which is when
/// a native file system's folder is synchronised. Lock files are no part of the record.
class CPowerCutFileSystem : public lum::CBase, public lum::IFileSystem {
public:
    enum Kind { Create, Delete, Write, SetLength, Flush };
    struct Event {
        Kind kind;
        lum::String name;        ///< of the file, in normal form
        int file = -1;           ///< tells apart files that had the same name one after the other
        lum::int64 position = 0; ///< the new length for SetLength
        std::vector<unsigned char> data = {};
        bool makesNamesDurable = false; ///< of a flush
    };
    /// Whether something that is not durable reaches the medium. Asked of every event, and for writes of
    /// every sector that they touch: `sector` is its number in the file, -1 for other events. The medium
    /// holds a sector as it was at some moment: with a later write of a sector come the earlier ones.
    using Keep = std::function<bool(const Event& event, std::size_t index, lum::int64 sector)>;

    explicit CPowerCutFileSystem(lum::CMemoryFileSystem* below);

    /// Forgets what was kept and starts from the files as they are now.
    void start();

    const std::vector<Event>& getEvents() const { return m_journal->events; }
    std::size_t getEventCount() const { return m_journal->events.size(); }

    /// The files after the first `count` events; of those that are not durable then, `keep` says what is
    /// left; without it, all.
    lum::P<lum::CMemoryFileSystem> replay(std::size_t count, const Keep& keep = nullptr) const;

    lum::P<lum::IIOStream> openFile(const lum::CURI& uri, lum::IIOStream::Access access) override;
    bool fileExists(const lum::CURI& uri) override { return m_below->fileExists(uri); }
    void deleteFile(const lum::CURI& uri, bool ignoreMissing) override;
    bool isFileOfStream(const lum::CURI& uri, lum::IIOStream& stream) override {
        return m_below->isFileOfStream(uri, dynamic_cast<CForwardingStream&>(stream).getBelow());
    }

private:
    class CStream;
    using Contents = std::vector<unsigned char>;
    struct Journal {
        std::map<lum::String, int> baseNames;
        std::vector<Contents> baseFiles;
        std::map<lum::String, int> names; ///< now
        int fileCount = 0;
        std::vector<Event> events;
    };

    std::vector<bool> findDurable(std::size_t count) const;

    lum::P<lum::CMemoryFileSystem> m_below;
    std::shared_ptr<Journal> m_journal = std::make_shared<Journal>();
};

void PrintTo(const CPowerCutFileSystem::Event& event, std::ostream* out);

} // namespace tessel::test
