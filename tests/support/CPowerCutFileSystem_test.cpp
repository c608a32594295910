#include "CPowerCutFileSystem.h"

#include <gtest/gtest.h>

using namespace lum;

namespace tessel::test {
namespace {

using Event = CPowerCutFileSystem::Event;

const CURI uriA(String("memory:/folder/a.bin"));
const CURI uriB(String("memory:/folder/b.bin"));

const CPowerCutFileSystem::Keep loseAll = [](const Event&, std::size_t, int64) { return false; };

class CPowerCutFileSystemTest : public ::testing::Test {
protected:
    P<IIOStream> open(const CURI& uri = uriA) { return m_files->openFile(uri, IIOStream::Access_ReadWrite); }

    static void write(IIOStream& stream, int64 position, const std::string& text) {
        stream.seek(position);
        stream.write(text.data(), static_cast<int>(text.size()));
    }
    /// A file after all that happened; "missing" when it is not there.
    std::string replay(const CPowerCutFileSystem::Keep& keep = nullptr, const CURI& uri = uriA) const {
        return replay(m_files->getEventCount(), keep, uri);
    }
    std::string replay(std::size_t count, const CPowerCutFileSystem::Keep& keep = nullptr,
                       const CURI& uri = uriA) const {
        const P<CMemoryFileSystem> files = m_files->replay(count, keep);
        if (!files->fileExists(uri))
            return "missing";
        const P<IIOStream> stream = files->openFile(uri, IIOStream::Access_Read);
        std::string text(static_cast<std::size_t>(stream->getLength()), '\0');
        stream->read(text.data(), static_cast<int>(text.size()));
        return text;
    }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CPowerCutFileSystem> m_files{new CPowerCutFileSystem(m_memory.get())};
};

} // namespace

TEST_F(CPowerCutFileSystemTest, ReplaysEveryPrefixOfAllFiles) {
    write(*open(uriA), 0, "old");
    m_files->start();
    const P<IIOStream> a = open(uriA);
    const P<IIOStream> b = open(uriB);
    write(*a, 0, "11");
    write(*b, 1, "2");
    a->setLength(1);
    ASSERT_EQ(m_files->getEventCount(), 4U); // the first tells of a new file
    EXPECT_EQ(replay(0), "old");
    EXPECT_EQ(replay(0, nullptr, uriB), "missing");
    EXPECT_EQ(replay(1, nullptr, uriB), "");
    EXPECT_EQ(replay(2), "11d");
    EXPECT_EQ(replay(3, nullptr, uriB), std::string("\0002", 2));
    EXPECT_EQ(replay(4), "1");
}

TEST_F(CPowerCutFileSystemTest, FlushMakesTheWritesOfItsFileDurable) {
    open(uriA);
    open(uriB);
    m_files->start();
    const P<IIOStream> a = open(uriA);
    const P<IIOStream> b = open(uriB);
    write(*a, 0, "aa");
    write(*b, 0, "bb");
    a->flush();
    write(*a, 1, "c");
    EXPECT_EQ(replay(loseAll), "aa");
    EXPECT_EQ(replay(loseAll, uriB), "");
}

TEST_F(CPowerCutFileSystemTest, NamesAreDurableWhenANewFileIsFlushed) {
    write(*open(uriB), 0, "b");
    m_files->start();
    m_files->deleteFile(uriB, false);
    const P<IIOStream> a = open(uriA);
    write(*a, 0, "aa");
    EXPECT_EQ(replay(loseAll), "missing");
    EXPECT_EQ(replay(loseAll, uriB), "b");
    a->flush();
    EXPECT_EQ(replay(loseAll), "aa");
    EXPECT_EQ(replay(loseAll, uriB), "missing");

    m_files->deleteFile(uriA, false);
    a->flush(); // the folder was synchronised at the first one
    EXPECT_EQ(replay(loseAll), "aa");
}

TEST_F(CPowerCutFileSystemTest, FileInThePlaceOfADeletedOneIsAnother) {
    write(*open(uriA), 0, "old");
    m_files->start();
    m_files->deleteFile(uriA, false);
    write(*open(uriA), 0, "n");
    EXPECT_EQ(replay(), "n");
    EXPECT_EQ(replay(loseAll), "old");
    const auto keepNames = [](const Event& event, std::size_t, int64) {
        return event.kind == CPowerCutFileSystem::Create;
    };
    EXPECT_EQ(replay(keepNames), "");
}

TEST_F(CPowerCutFileSystemTest, WritesAreTornAtSectors) {
    write(*open(), 0, std::string(1500, 'o'));
    m_files->start();
    write(*open(), 100, std::string(1300, 'n'));
    const auto keepSecond = [](const Event&, std::size_t, int64 sector) { return sector == 1; };
    EXPECT_EQ(replay(keepSecond),
              std::string(512, 'o') + std::string(512, 'n') + std::string(1500 - 1024, 'o'));
}

TEST_F(CPowerCutFileSystemTest, LaterWriteOfASectorBringsTheEarlierOne) {
    write(*open(), 0, "oooo");
    m_files->start();
    const P<IIOStream> stream = open();
    write(*stream, 0, "1");
    write(*stream, 1, "2");
    write(*stream, 2, "3");
    const auto keepTheSecond = [](const Event&, std::size_t index, int64) { return index == 1; };
    EXPECT_EQ(replay(keepTheSecond), "12oo");
}

TEST_F(CPowerCutFileSystemTest, LockFilesAreNoPartOfIt) {
    const CURI lock(String("memory:/folder/a.bin.lock"));
    write(*open(lock), 0, "x");
    EXPECT_TRUE(m_files->fileExists(lock));
    m_files->deleteFile(lock, false);
    EXPECT_EQ(m_files->getEventCount(), 0U);
}

} // namespace tessel::test
