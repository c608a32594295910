#pragma once

#include "tessel/tessel.h"

#include <cstdio>
#include <cstdlib>

/// What all fuzz targets share. A target reports a finding by ending the process: through REQUIRE, or
/// because something other than a lum::CError comes out of the library.
namespace fuzz {

using namespace tessel;

#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                   \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)

/// Keeps the log quiet.
class CSilentSink : public CBase, public ILogSink {
public:
    void log(Level, const String&, const std::exception*, const String&) override {}
};

inline void silenceLog() {
    static const P<ILogSink> previous = setLogSink(P<ILogSink>(new CSilentSink).get());
}

/// Runs something that hostile bytes may make fail, as the library promises to fail. True when it did not.
template <class Action>
bool mayFail(Action action) {
    try {
        action();
        return true;
    } catch (const CError&) {
        return false;
    }
}

/// Takes numbers and bytes from the input; zeros when it has run out.
class Input {
public:
    Input(const unsigned char* data, std::size_t size) : m_data(data), m_left(size) {}

    bool isEmpty() const { return m_left == 0; }
    unsigned takeByte() {
        if (m_left == 0)
            return 0;
        --m_left;
        return *m_data++;
    }
    unsigned takeNumber() { return takeByte() | takeByte() << 8 | takeByte() << 16; }
    TBuffer<unsigned char> takeBytes(std::size_t count) {
        count = count < m_left ? count : m_left;
        TBuffer<unsigned char> bytes(m_data, static_cast<int64>(count));
        m_data += count;
        m_left -= count;
        return bytes;
    }
    TBuffer<unsigned char> takeRest() { return takeBytes(m_left); }

private:
    const unsigned char* m_data;
    std::size_t m_left;
};

inline void writeFile(IFileSystem& files, const CURI& uri, const TBuffer<unsigned char>& bytes) {
    const P<IIOStream> stream = files.openFile(uri, IIOStream::Access_ReadWrite);
    stream->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
    stream->close();
}

} // namespace fuzz
