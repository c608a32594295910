#include "CJournalFileSystem.h"

#include <algorithm>
#include <ostream>

using namespace lum;

namespace tessel::test {

class CJournalFileSystem::CStream : public CForwardingStream {
public:
    CStream(IIOStream* below, const CURI& uri, std::shared_ptr<Journal> journal)
        : CForwardingStream(below), m_uri(uri.toNormalized()), m_journal(std::move(journal)) {}

    void write(const void* data, int size, IWriteBarrier* barrier) override {
        const int64 position = getPosition();
        CForwardingStream::write(data, size, barrier);
        record({Write, position, Bytes(static_cast<const unsigned char*>(data), size)});
    }
    void flush() override {
        CForwardingStream::flush();
        record({Flush});
    }
    void setLength(int64 length) override {
        CForwardingStream::setLength(length);
        record({SetLength, length});
    }

private:
    void record(Event event) {
        if (m_uri == m_journal->uri)
            m_journal->events.push_back(std::move(event));
    }

    CURI m_uri;
    std::shared_ptr<Journal> m_journal;
};

CJournalFileSystem::CJournalFileSystem(IFileSystem* below) : m_below(below) {}

void CJournalFileSystem::start(const CURI& uri) {
    m_journal->uri = uri.toNormalized();
    m_journal->events.clear();
    m_journal->base =
        m_below->fileExists(uri) ? readAll(*m_below->openFile(uri, IIOStream::Access_Read)) : Bytes();
}

Bytes CJournalFileSystem::replay(std::size_t count, const Keep& keep) const {
    const std::vector<Event>& events = m_journal->events;
    std::size_t durable = count;
    while (durable > 0 && events[durable - 1].kind != Flush)
        --durable;
    std::vector<unsigned char> file(m_journal->base.getData(),
                                    m_journal->base.getData() + m_journal->base.getUsed());
    for (std::size_t i = 0; i < count; ++i) {
        const Event& event = events[i];
        const bool mayBeLost = keep && i >= durable;
        if (event.kind == SetLength && !(mayBeLost && keep(event) == 0))
            file.resize(static_cast<std::size_t>(event.position));
        if (event.kind != Write)
            continue;
        const int64 kept = mayBeLost ? keep(event) : event.data.getUsed();
        const auto end = static_cast<std::size_t>(event.position + kept);
        if (kept > 0 && file.size() < end)
            file.resize(end);
        std::copy_n(event.data.getData(), kept, file.data() + event.position);
    }
    return Bytes(file.data(), static_cast<int64>(file.size()));
}

P<IIOStream> CJournalFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    return new CStream(m_below->openFile(uri, access).get(), uri, m_journal);
}

void PrintTo(const CJournalFileSystem::Event& event, std::ostream* out) {
    static constexpr const char* names[] = {"Write", "SetLength", "Flush"};
    *out << names[event.kind] << " " << event.position << "+" << event.data.getUsed();
}

} // namespace tessel::test
