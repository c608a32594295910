#include "CJournalFileSystem.h"

#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

using namespace lum;

namespace tessel::test {
namespace {

const CURI uri(String("memory:/folder/a.bin"));

class CJournalFileSystemTest : public ::testing::Test {
protected:
    /// Writes the file as "old", then, kept: "1111" at 0, a flush, "22" at 2, "333" at 5.
    void SetUp() override {
        const P<IIOStream> stream = m_journal->openFile(uri, IIOStream::Access_ReadWrite);
        write(*stream, 0, "old");
        m_journal->start(uri);
        write(*stream, 0, "1111");
        stream->flush();
        write(*stream, 2, "22");
        write(*stream, 5, "333");
    }

    static void write(IIOStream& stream, int64 position, std::string_view text) {
        stream.seek(position);
        stream.write(text.data(), static_cast<int>(text.size()));
    }

    std::string replay(std::size_t count, const CJournalFileSystem::Keep& keep = nullptr) const {
        return textOf(m_journal->replay(count, keep));
    }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CJournalFileSystem> m_journal{new CJournalFileSystem(m_memory.get())};
};

} // namespace

TEST_F(CJournalFileSystemTest, ReplaysEveryPrefix) {
    ASSERT_EQ(m_journal->getEventCount(), 4U);
    EXPECT_EQ(replay(0), "old");
    EXPECT_EQ(replay(1), "1111");
    EXPECT_EQ(replay(2), "1111");
    EXPECT_EQ(replay(3), "1122");
    EXPECT_EQ(replay(4), (std::string{'1', '1', '2', '2', 0, '3', '3', '3'}));
}

TEST_F(CJournalFileSystemTest, LosesOnlyWhatWasNotFlushed) {
    const auto loseAll = [](const CJournalFileSystem::Event&) { return int64{0}; };
    EXPECT_EQ(replay(1, loseAll), "old");
    EXPECT_EQ(replay(2, loseAll), "1111");
    EXPECT_EQ(replay(4, loseAll), "1111");
}

TEST_F(CJournalFileSystemTest, TearsAndReorders) {
    const auto loseFirst = [](const CJournalFileSystem::Event& event) {
        return event.position == 2 ? int64{0} : int64{2};
    };
    EXPECT_EQ(replay(4, loseFirst), (std::string{'1', '1', '1', '1', 0, '3', '3'}));
}

TEST_F(CJournalFileSystemTest, KeepsChangesOfLengthAndNoOtherFile) {
    m_journal->start(uri);
    const P<IIOStream> stream = m_journal->openFile(uri, IIOStream::Access_ReadWrite);
    stream->setLength(2);
    stream->setLength(4);
    const CURI other(String("memory:/folder/b.bin"));
    write(*m_journal->openFile(other, IIOStream::Access_ReadWrite), 0, "other");
    ASSERT_EQ(m_journal->getEventCount(), 2U);
    EXPECT_EQ(replay(2), (std::string{'1', '1', 0, 0}));
    EXPECT_TRUE(m_journal->fileExists(other));
}

} // namespace tessel::test
