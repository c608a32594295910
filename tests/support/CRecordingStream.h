#pragma once

#include "CForwardingStream.h"

#include <ostream>

namespace tessel::test {

/// Writes down what is asked of the stream below, in order: transfers by position and bytes asked for,
/// flushes, changes of length.
class CRecordingStream : public CForwardingStream {
public:
    enum Kind { Read, Write, WriteWithBarrier, Flush, SetLength, Barrier };
    struct Operation {
        Kind kind;
        lum::int64 position = 0; ///< the new length for SetLength
        lum::int64 size = 0;

        friend bool operator==(const Operation&, const Operation&) = default;
    };

    using CForwardingStream::CForwardingStream;

    /// What was asked so far; it is forgotten by this.
    lum::TArray<Operation> takeOperations() { return std::exchange(m_operations, {}); }

    void read(void* buffer, int count) override {
        m_operations.push_back({Read, getPosition(), count});
        CForwardingStream::read(buffer, count);
    }
    int readLax(void* buffer, int count) override {
        m_operations.push_back({Read, getPosition(), count});
        return CForwardingStream::readLax(buffer, count);
    }
    int readAvailable(void* buffer, int count) override {
        m_operations.push_back({Read, getPosition(), count});
        return CForwardingStream::readAvailable(buffer, count);
    }
    void write(const void* data, int size, lum::IWriteBarrier* barrier = nullptr) override {
        m_operations.push_back({barrier ? WriteWithBarrier : Write, getPosition(), size});
        CForwardingStream::write(data, size, barrier);
    }
    lum::P<lum::IWriteBarrier> createWriteBarrier(lum::IWriteBarrier* parent) override {
        m_operations.push_back({Barrier});
        return CForwardingStream::createWriteBarrier(parent);
    }
    void flush() override {
        m_operations.push_back({Flush});
        CForwardingStream::flush();
    }
    void setLength(lum::int64 length) override {
        m_operations.push_back({SetLength, length});
        CForwardingStream::setLength(length);
    }

private:
    lum::TArray<Operation> m_operations;
};

inline void PrintTo(const CRecordingStream::Operation& operation, std::ostream* out) {
    static constexpr const char* names[] = {"Read",  "Write",     "WriteWithBarrier",
                                            "Flush", "SetLength", "Barrier"};
    *out << names[operation.kind] << " " << operation.position << "+" << operation.size;
}

} // namespace tessel::test
