#pragma once

#include "CForwardingStream.h"
#include "lum/CBase.h"
#include "lum/IFileSystem.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace tessel::test {

/// Writes down what is done to files, in order and by name: "open a" (for reading), "open+ a" (for
/// writing), "read a", "write a", "flush a", "length a", "close a", "delete a". Repetitions of one event
/// count once.
class CEventFileSystem : public lum::CBase, public lum::IFileSystem {
public:
    explicit CEventFileSystem(lum::IFileSystem* below)
        : m_below(below), m_record(std::make_shared<Record>()) {}

    /// What was done so far; it is forgotten by this.
    std::vector<std::string> takeEvents() { return std::exchange(m_record->events, {}); }
    /// The same without what is neither opened, closed nor deleted.
    std::vector<std::string> takeOpeningEvents() {
        std::vector<std::string> events = takeEvents();
        std::erase_if(events, [](const std::string& event) {
            return !event.starts_with("open") && !event.starts_with("close") && !event.starts_with("delete");
        });
        return events;
    }
    /// The names of the files that streams are open on now, in order of opening.
    std::vector<std::string> getOpenFiles() const { return m_record->openFiles; }

    lum::P<lum::IIOStream> openFile(const lum::CURI& uri, lum::IIOStream::Access access) override {
        const lum::P<lum::IIOStream> stream = m_below->openFile(uri, access);
        const std::string name = nameOf(uri);
        m_record->add((access == lum::IIOStream::Access_Read ? "open " : "open+ ") + name);
        m_record->openFiles.push_back(name);
        return new CStream(stream.get(), name, m_record);
    }
    bool fileExists(const lum::CURI& uri) override { return m_below->fileExists(uri); }
    void deleteFile(const lum::CURI& uri, bool ignoreMissing) override {
        m_below->deleteFile(uri, ignoreMissing);
        m_record->add("delete " + nameOf(uri));
    }
    bool isFileOfStream(const lum::CURI& uri, lum::IIOStream& stream) override {
        return m_below->isFileOfStream(uri, dynamic_cast<CStream&>(stream).getBelow());
    }

private:
    struct Record {
        std::vector<std::string> events;
        std::vector<std::string> openFiles;

        void add(const std::string& event) {
            if (events.empty() || events.back() != event)
                events.push_back(event);
        }
    };

    class CStream : public CForwardingStream {
    public:
        CStream(lum::IIOStream* below, const std::string& name, std::shared_ptr<Record> record)
            : CForwardingStream(below), m_name(name), m_record(std::move(record)) {}
        ~CStream() override { noteClosed(); }

        void read(void* buffer, int count) override {
            m_record->add("read " + m_name);
            CForwardingStream::read(buffer, count);
        }
        int readLax(void* buffer, int count) override {
            m_record->add("read " + m_name);
            return CForwardingStream::readLax(buffer, count);
        }
        int readAvailable(void* buffer, int count) override {
            m_record->add("read " + m_name);
            return CForwardingStream::readAvailable(buffer, count);
        }
        void write(const void* data, int size, lum::IWriteBarrier* barrier = nullptr) override {
            m_record->add("write " + m_name);
            CForwardingStream::write(data, size, barrier);
        }
        void flush() override {
            m_record->add("flush " + m_name);
            CForwardingStream::flush();
        }
        void setLength(lum::int64 length) override {
            m_record->add("length " + m_name);
            CForwardingStream::setLength(length);
        }
        void close() override {
            CForwardingStream::close();
            noteClosed();
        }

    private:
        void noteClosed() {
            if (!m_open)
                return;
            m_open = false;
            m_record->add("close " + m_name);
            auto& names = m_record->openFiles;
            names.erase(std::find(names.begin(), names.end(), m_name));
        }

        std::string m_name;
        std::shared_ptr<Record> m_record;
        bool m_open = true;
    };

    static std::string nameOf(const lum::CURI& uri) { return uri.getName().toUTF8(); }

    lum::P<lum::IFileSystem> m_below;
    std::shared_ptr<Record> m_record;
};

} // namespace tessel::test
