#include "CPowerCutFileSystem.h"

#include <algorithm>
#include <ostream>
#include <utility>

using namespace lum;

namespace tessel::test {

namespace {

constexpr int64 sectorSize = 512;

String nameOf(const CURI& uri) {
    return uri.toNormalized().toString(true);
}

bool isLockFile(const String& name) {
    return name.EndsWith(".lock");
}

/// Calls `handle(sector, offset in the data, bytes)` for each sector of the file that a write touches.
template <class Handler>
void forEachSector(const CPowerCutFileSystem::Event& write, Handler handle) {
    const auto size = static_cast<int64>(write.data.size());
    for (int64 done = 0; done < size;) {
        const int64 sector = (write.position + done) / sectorSize;
        const int64 bytes = std::min((sector + 1) * sectorSize - write.position - done, size - done);
        handle(sector, done, bytes);
        done += bytes;
    }
}

} // namespace

class CPowerCutFileSystem::CStream : public CForwardingStream {
public:
    CStream(IIOStream* below, String name, int file, bool createdFile, std::shared_ptr<Journal> journal)
        : CForwardingStream(below),
          m_name(std::move(name)),
          m_file(file),
          m_createdFile(createdFile),
          m_journal(std::move(journal)) {}

    void write(const void* data, int size, IWriteBarrier* barrier) override {
        const int64 position = getPosition();
        CForwardingStream::write(data, size, barrier);
        const auto* const bytes = static_cast<const unsigned char*>(data);
        record({Write, m_name, m_file, position, {bytes, bytes + size}});
    }
    void flush() override {
        CForwardingStream::flush();
        record({Flush, m_name, m_file, 0, {}, std::exchange(m_createdFile, false)});
    }
    void setLength(int64 length) override {
        CForwardingStream::setLength(length);
        record({SetLength, m_name, m_file, length});
    }

private:
    void record(Event event) {
        if (m_file >= 0)
            m_journal->events.push_back(std::move(event));
    }

    String m_name;
    int m_file;
    bool m_createdFile;
    std::shared_ptr<Journal> m_journal;
};

CPowerCutFileSystem::CPowerCutFileSystem(CMemoryFileSystem* below) : m_below(below) {
    start();
}

void CPowerCutFileSystem::start() {
    *m_journal = Journal();
    for (const CURI& uri : m_below->listFiles()) {
        const String name = nameOf(uri);
        if (isLockFile(name))
            continue;
        const P<IIOStream> stream = m_below->openFile(uri, IIOStream::Access_Read);
        Contents contents(static_cast<std::size_t>(stream->getLength()));
        stream->read(contents.data(), static_cast<int>(contents.size()));
        m_journal->baseNames[name] = m_journal->fileCount++;
        m_journal->baseFiles.push_back(std::move(contents));
    }
    m_journal->names = m_journal->baseNames;
}

std::vector<bool> CPowerCutFileSystem::findDurable(std::size_t count) const {
    std::vector<bool> durable(count);
    std::vector<bool> filesFlushed(static_cast<std::size_t>(m_journal->fileCount));
    bool namesFlushed = false;
    for (std::size_t i = count; i-- > 0;) {
        const Event& event = m_journal->events[i];
        const auto file = static_cast<std::size_t>(event.file);
        if (event.kind == Flush) {
            filesFlushed[file] = true;
            namesFlushed = namesFlushed || event.makesNamesDurable;
        }
        durable[i] = event.kind == Create || event.kind == Delete ? namesFlushed : filesFlushed[file];
    }
    return durable;
}

P<CMemoryFileSystem> CPowerCutFileSystem::replay(std::size_t count, const Keep& keep) const {
    const std::vector<Event>& events = m_journal->events;
    const std::vector<bool> durable = findDurable(count);
    const auto keeps = [&](std::size_t i, int64 sector) {
        return durable[i] || !keep || keep(events[i], i, sector);
    };
    // The last write of each sector that reaches the medium.
    std::map<std::pair<int, int64>, std::size_t> last;
    for (std::size_t i = 0; keep && i < count; ++i)
        if (events[i].kind == Write && !durable[i])
            forEachSector(events[i], [&](int64 sector, int64, int64) {
                if (keep(events[i], i, sector))
                    last[{events[i].file, sector}] = i;
            });
    const auto reaches = [&](std::size_t i, int64 sector) {
        if (!keep || durable[i])
            return true;
        const auto found = last.find({events[i].file, sector});
        return found != last.end() && i <= found->second;
    };

    std::map<String, int> names = m_journal->baseNames;
    std::vector<Contents> files = m_journal->baseFiles;
    files.resize(static_cast<std::size_t>(m_journal->fileCount));
    for (std::size_t i = 0; i < count; ++i) {
        const Event& event = events[i];
        Contents& file = files[static_cast<std::size_t>(event.file)];
        if (event.kind == Create && keeps(i, -1))
            names[event.name] = event.file;
        if (event.kind == Delete && keeps(i, -1))
            names.erase(event.name);
        if (event.kind == SetLength && keeps(i, -1))
            file.resize(static_cast<std::size_t>(event.position));
        if (event.kind == Write)
            forEachSector(event, [&](int64 sector, int64 offset, int64 bytes) {
                if (!reaches(i, sector))
                    return;
                const auto position = static_cast<std::size_t>(event.position + offset);
                if (file.size() < position + static_cast<std::size_t>(bytes))
                    file.resize(position + static_cast<std::size_t>(bytes));
                std::copy_n(event.data.data() + offset, bytes, file.data() + position);
            });
    }

    P<CMemoryFileSystem> result(new CMemoryFileSystem);
    for (const auto& [name, index] : names) {
        const Contents& contents = files[static_cast<std::size_t>(index)];
        result->openFile(CURI(name), IIOStream::Access_ReadWrite)
            ->write(contents.data(), static_cast<int>(contents.size()), nullptr);
    }
    return result;
}

P<IIOStream> CPowerCutFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    const String name = nameOf(uri);
    const bool existed = m_below->fileExists(uri);
    const P<IIOStream> stream = m_below->openFile(uri, access);
    int file = -1;
    if (!isLockFile(name)) {
        if (!existed) {
            m_journal->names[name] = m_journal->fileCount++;
            m_journal->events.push_back({Create, name, m_journal->names[name]});
        }
        file = m_journal->names.at(name);
    }
    return new CStream(stream.get(), name, file, !existed, m_journal);
}

void CPowerCutFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    const String name = nameOf(uri);
    m_below->deleteFile(uri, ignoreMissing);
    const auto found = m_journal->names.find(name);
    if (found == m_journal->names.end())
        return;
    m_journal->events.push_back({Delete, name, found->second});
    m_journal->names.erase(found);
}

void PrintTo(const CPowerCutFileSystem::Event& event, std::ostream* out) {
    static constexpr const char* names[] = {"Create", "Delete", "Write", "SetLength", "Flush"};
    *out << names[event.kind] << " " << event.name.toUTF8() << " " << event.position << "+"
         << event.data.size();
}

} // namespace tessel::test
