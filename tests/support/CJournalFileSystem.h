#pragma once

#include "Bytes.h"
#include "CForwardingStream.h"
#include "lum/IFileSystem.h"

#include <functional>
#include <memory>
#include <vector>

namespace tessel::test {

/// Hands every call on to the file system below and, from start() on, keeps what changes one file, in
/// order and with its bytes: so the file can be put together as a loss of power would leave it.
class CJournalFileSystem : public lum::CBase, public lum::IFileSystem {
public:
    enum Kind { Write, SetLength, Flush };
    struct Event {
        Kind kind;
        lum::int64 position = 0; ///< the new length for SetLength
        Bytes data = {};
    };
    /// How many bytes of a write reach the medium; 0: none. A change of length counts as done unless it
    /// is 0.
    using Keep = std::function<lum::int64(const Event&)>;

    explicit CJournalFileSystem(lum::IFileSystem* below);

    /// Forgets what was kept and starts from the file as it is now; an empty one when there is none.
    void start(const lum::CURI& uri);

    const std::vector<Event>& getEvents() const { return m_journal->events; }
    std::size_t getEventCount() const { return m_journal->events.size(); }

    /// The file after the first `count` events. Of those behind the last flush among them, `keep` says
    /// what is left; without it, all.
    Bytes replay(std::size_t count, const Keep& keep = nullptr) const;

    lum::P<lum::IIOStream> openFile(const lum::CURI& uri, lum::IIOStream::Access access) override;
    bool fileExists(const lum::CURI& uri) override { return m_below->fileExists(uri); }
    void deleteFile(const lum::CURI& uri, bool ignoreMissing) override {
        m_below->deleteFile(uri, ignoreMissing);
    }
    bool isFileOfStream(const lum::CURI& uri, lum::IIOStream& stream) override {
        return m_below->isFileOfStream(uri, dynamic_cast<CForwardingStream&>(stream).getBelow());
    }

private:
    class CStream;
    struct Journal {
        lum::CURI uri;
        Bytes base;
        std::vector<Event> events;
    };

    lum::P<lum::IFileSystem> m_below;
    std::shared_ptr<Journal> m_journal = std::make_shared<Journal>();
};

void PrintTo(const CJournalFileSystem::Event& event, std::ostream* out);

} // namespace tessel::test
