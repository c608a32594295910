#include "CForwardingStream.h"
#include "lum/CBufferStream.h"
#include "lum/CIOError.h"
#include "lum/COptimizingIOStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

using namespace lum;
using namespace tessel::test;

// Random operations on a COptimizingIOStream, each compared with the same operation on plain bytes.

namespace {

/// Refuses calls at random, doing nothing then.
class CFlakyStream : public CForwardingStream {
public:
    CFlakyStream(IIOStream* below, std::mt19937& random, int percent)
        : CForwardingStream(below), m_random(random), m_percent(percent) {}

    void setPercent(int percent) { m_percent = percent; }

    int readLax(void* buffer, int count) override {
        fail(CIOError::Code_ReadFailed);
        return CForwardingStream::readLax(buffer, count);
    }
    void write(const void* data, int size, IWriteBarrier* barrier) override {
        fail(CIOError::Code_WriteFailed);
        CForwardingStream::write(data, size, barrier);
    }
    void flush() override {
        fail(CIOError::Code_WriteFailed);
        CForwardingStream::flush();
    }
    void setLength(int64 length) override {
        fail(CIOError::Code_WriteFailed);
        CForwardingStream::setLength(length);
    }

private:
    void fail(CIOError::Code code) {
        if (static_cast<int>(m_random() % 100) < m_percent)
            throw CIOError(code, "Refused at random");
    }

    std::mt19937& m_random;
    int m_percent;
};

struct Pattern {
    const char* name;
    /// Positions are below this, or where the last transfer ended.
    int positions;
    /// How often a transfer begins where the last one ended, in per cent.
    int sequential;
    std::vector<int> sizes;
    int layers;
    /// How many calls below are refused, in per cent.
    int failing;
    /// Compares everything after each step, which keeps the read buffer from being used much.
    bool comparesAll;
};

void PrintTo(const Pattern& pattern, std::ostream* out) {
    *out << pattern.name;
}

const std::vector<int> tinySizes = {0, 1, 2, 3, 7, 10, 40};
const std::vector<int> pageSizes = {1, 100, 511, 512, 4095, 4096, 4097, 10'000};
const std::vector<int> limitSizes = {1, 4096, 20'000, 32'767, 32'768, 32'769, 65'535, 65'536, 65'537, 90'000};

const Pattern patterns[] = {
    {"Tiny", 300, 30, tinySizes, 1, 0, false},
    {"TinyCompared", 300, 30, tinySizes, 1, 0, true},
    {"TinyTwoLayers", 300, 30, tinySizes, 2, 0, false},
    {"Pages", 60'000, 40, pageSizes, 1, 0, false},
    {"PagesCompared", 60'000, 40, pageSizes, 1, 0, true},
    {"PagesSequential", 200'000, 90, pageSizes, 1, 0, false},
    {"PagesTwoLayers", 60'000, 40, pageSizes, 2, 0, false},
    {"Limits", 200'000, 40, limitSizes, 1, 0, false},
    {"LimitsCompared", 200'000, 40, limitSizes, 1, 0, true},
    {"LimitsSequential", 300'000, 80, limitSizes, 1, 0, false},
    {"LimitsTwoLayers", 200'000, 40, limitSizes, 2, 0, true},
    {"TinyFailing", 300, 30, tinySizes, 1, 20, false},
    {"PagesFailing", 60'000, 60, pageSizes, 1, 20, false},
    {"PagesFailingTwoLayers", 60'000, 60, pageSizes, 2, 10, false},
    {"LimitsFailing", 200'000, 60, limitSizes, 1, 30, false},
};

class COptimizingIOStreamModel : public ::testing::TestWithParam<Pattern> {
protected:
    void SetUp() override {
        m_flaky = new CFlakyStream(P<IIOStream>(new CBufferStream(&m_below, 2.0)).get(), m_random,
                                   GetParam().failing);
        m_stream = m_flaky.get();
        for (int i = 0; i < GetParam().layers; ++i)
            m_stream = new COptimizingIOStream(m_stream.get());
    }

    int draw(int limit) { return static_cast<int>(m_random() % static_cast<unsigned>(limit)); }

    void step() {
        if (draw(100) >= GetParam().sequential)
            moveTo(draw(GetParam().positions));
        switch (draw(20)) {
        case 0:
            attempt([&] { m_stream->flush(); });
            break;
        case 1:
            setLength(draw(GetParam().positions));
            break;
        case 2: // to the end
            moveTo(static_cast<int64>(m_model.size()));
            break;
        case 3:
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
            read(drawSize());
            break;
        default:
            write(drawSize());
        }
        ASSERT_EQ(m_stream->getPosition(), m_position);
        ASSERT_EQ(m_stream->getLength(), static_cast<int64>(m_model.size()));
        ASSERT_EQ(m_stream->isEndOfStream(), m_position >= static_cast<int64>(m_model.size()));
        if (GetParam().comparesAll)
            compareAll();
    }

    void compareAll() {
        std::string all(m_model.size(), '?');
        m_stream->seek(0);
        m_stream->read(all.data(), static_cast<int>(all.size()));
        ASSERT_TRUE(all == m_model);
        m_stream->seek(m_position);
    }

    void expectAllBelow() {
        m_flaky->setPercent(0);
        try {
            m_stream->flush();
        } catch (const CIOError&) {
            // What failed before is told once more.
            EXPECT_GT(GetParam().failing, 0);
        }
        if (GetParam().layers > 1) // every layer may have something to tell
            attempt([&] { m_stream->flush(); });
        EXPECT_NO_THROW(m_stream->flush());
        const auto* const bytes = reinterpret_cast<const char*>(m_below.getData());
        EXPECT_TRUE(std::string(bytes, static_cast<std::size_t>(m_below.getUsed())) == m_model);
    }

    int getRefusals() const { return m_refusals; }

private:
    /// True when the action was done; what is refused must have changed nothing.
    template <class Action>
    bool attempt(Action action) {
        try {
            action();
            return true;
        } catch (const CIOError& error) {
            EXPECT_EQ(error.getMessage(), String("Refused at random"));
            EXPECT_GT(GetParam().failing, 0);
            ++m_refusals;
            return false;
        }
    }

    int drawSize() {
        return GetParam().sizes[static_cast<std::size_t>(draw(static_cast<int>(GetParam().sizes.size())))];
    }

    void moveTo(int64 position) {
        m_stream->seek(position);
        m_position = position;
    }

    void setLength(int64 length) {
        if (attempt([&] { m_stream->setLength(length); }))
            m_model.resize(static_cast<std::size_t>(length));
    }

    void read(int size) {
        std::string text(static_cast<std::size_t>(size), '?');
        int done = 0;
        if (!attempt([&] { done = m_stream->readLax(text.data(), size); }))
            return;
        const auto start = std::min(static_cast<std::size_t>(m_position), m_model.size());
        text.resize(static_cast<std::size_t>(done));
        ASSERT_TRUE(text == m_model.substr(start, static_cast<std::size_t>(size)))
            << m_position << "+" << size;
        m_position += done;
    }

    void write(int size) {
        std::string text(static_cast<std::size_t>(size), '\0');
        std::generate(text.begin(), text.end(), [&] { return static_cast<char>(m_next++ % 251); });
        if (!attempt([&] { m_stream->write(text.data(), size); }) || size == 0)
            return;
        const auto start = static_cast<std::size_t>(m_position);
        m_model.resize(std::max(m_model.size(), start + text.size()));
        m_model.replace(start, text.size(), text);
        m_position += size;
    }

    std::mt19937 m_random{20240607};
    TBuffer<unsigned char> m_below;
    P<CFlakyStream> m_flaky;
    P<IIOStream> m_stream;
    std::string m_model;
    int64 m_position = 0;
    unsigned m_next = 0;
    int m_refusals = 0;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, COptimizingIOStreamModel, ::testing::ValuesIn(patterns),
                         [](const auto& pattern) { return std::string(pattern.param.name); });

TEST_P(COptimizingIOStreamModel, IsAsGoodAsPlainBytes) {
    constexpr int steps = 3000;
    for (int i = 0; i < steps; ++i)
        ASSERT_NO_FATAL_FAILURE(step()) << "step " << i;
    EXPECT_EQ(getRefusals() > 0, GetParam().failing > 0);
    expectAllBelow();
}
