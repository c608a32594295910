#pragma once

#include "lum/CBase.h"
#include "lum/IIOStream.h"

namespace tessel::test {

/// Hands every call on to the stream below; what is to be different is overridden.
class CForwardingStream : public lum::CBase, public lum::IIOStream {
public:
    explicit CForwardingStream(lum::IIOStream* below) : m_below(below) {}

    lum::IIOStream& getBelow() const noexcept { return *m_below; }

    lum::int64 getLength() const override { return m_below->getLength(); }
    lum::int64 getPosition() const override { return m_below->getPosition(); }
    lum::CURI getURI() override { return m_below->getURI(); }
    void seek(lum::int64 position) override { m_below->seek(position); }
    lum::P<lum::IStreamLock> lockRange(lum::int64 start, lum::int64 length, LockType type) override {
        return m_below->lockRange(start, length, type);
    }
    void close() override { m_below->close(); }

    void read(void* buffer, int count) override { m_below->read(buffer, count); }
    int readLax(void* buffer, int count) override { return m_below->readLax(buffer, count); }
    int readAvailable(void* buffer, int count) override { return m_below->readAvailable(buffer, count); }
    bool waitReadable(int timeoutMs) const override { return m_below->waitReadable(timeoutMs); }
    bool isEndOfStream() const override { return m_below->isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return m_below->isEndOfStream_NonBlocking(); }

    void write(const void* data, int size, lum::IWriteBarrier* barrier = nullptr) override {
        m_below->write(data, size, barrier);
    }
    /// Goes through write(), whoever overrides it.
    void writeKeepBuffer(const lum::TConstBufferSlice<unsigned char>& data,
                         lum::IWriteBarrier* barrier = nullptr) override {
        write(data.getData(), static_cast<int>(data.getLength()), barrier);
    }
    lum::P<lum::IWriteBarrier> createWriteBarrier(lum::IWriteBarrier* parent) override {
        return m_below->createWriteBarrier(parent);
    }
    void flush() override { m_below->flush(); }
    void setLength(lum::int64 length) override { m_below->setLength(length); }

private:
    lum::P<lum::IIOStream> m_below;
};

} // namespace tessel::test
