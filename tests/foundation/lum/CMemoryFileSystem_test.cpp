#include "lum/CMemoryFileSystem.h"

#include "ErrorMatchers.h"
#include "lum/CNativeFileSystem.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using namespace lum;
using namespace tessel::test;
using ::testing::ElementsAre;

namespace {

CURI makeURI(const char* text) {
    return CURI(String(text));
}

} // namespace

TEST(CMemoryFileSystem, ListsItsFilesInNormalFormAndOrder) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    EXPECT_TRUE(fileSystem->listFiles().empty());
    for (const char* const name : {"memory:/b/../c", "MEMORY:/a/%7Ex", "file:///a", "memory:/b"})
        fileSystem->openFile(makeURI(name), IIOStream::Access_ReadWrite);
    fileSystem->deleteFile(makeURI("memory:/b"), false);
    EXPECT_THAT(fileSystem->listFiles(), ElementsAre(makeURI("file:///a").toNormalized(),
                                                     makeURI("memory:/a/~x"), makeURI("memory:/c")));
}

TEST(CMemoryFileSystem, StreamsOutliveIt) {
    P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    const P<IIOStream> stream = fileSystem->openFile(makeURI("memory:/a"), IIOStream::Access_ReadWrite);
    fileSystem = nullptr;
    stream->write("abc", 3);
    EXPECT_EQ(stream->getLength(), 3);
}

TEST(CMemoryFileSystem, RefusesStreamsOfOthers) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    const P<CMemoryFileSystem> other(new CMemoryFileSystem);
    const CURI uri = makeURI("memory:/a");
    const P<IIOStream> stream = other->openFile(uri, IIOStream::Access_ReadWrite);
    fileSystem->openFile(uri, IIOStream::Access_ReadWrite);
    // Of the same kind, but not on this file.
    EXPECT_FALSE(fileSystem->isFileOfStream(uri, *stream));

    const P<CNativeFileSystem> native(new CNativeFileSystem);
    const P<IIOStream> nativeStream =
        native->openFile(nativePathToURI("/proc/self/status"), IIOStream::Access_Read);
    EXPECT_INVALID_ARG_ERROR(fileSystem->isFileOfStream(uri, *nativeStream),
                             "CMemoryFileSystem::isFileOfStream",
                             "The stream was not opened by this file system.", {{"uri", "memory:/a"}});
}

TEST(CMemoryFileSystem, ServesSeveralThreads) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    constexpr int threads = 4;
    constexpr int rounds = 200;
    std::atomic<int> mismatches = 0;
    const auto work = [&](int number) {
        const CURI own = makeURI(("memory:/" + std::to_string(number)).c_str());
        for (int i = 0; i < rounds; ++i) {
            const P<IIOStream> common =
                fileSystem->openFile(makeURI("memory:/common"), IIOStream::Access_ReadWrite);
            common->seek(number * 100'000 + i);
            common->write(&i, 1);
            const P<IIOStream> stream = fileSystem->openFile(own, IIOStream::Access_ReadWrite);
            stream->write(&number, sizeof number);
            stream->seek(0);
            int found = -1;
            stream->read(&found, sizeof found);
            mismatches += found != number;
            fileSystem->deleteFile(own, false);
        }
    };
    std::vector<std::thread> workers;
    for (int number = 0; number < threads; ++number)
        workers.emplace_back(work, number);
    for (std::thread& worker : workers)
        worker.join();

    EXPECT_EQ(mismatches, 0);
    const P<IIOStream> common = fileSystem->openFile(makeURI("memory:/common"), IIOStream::Access_Read);
    for (int number = 0; number < threads; ++number) {
        unsigned char bytes[rounds] = {};
        common->seek(number * 100'000);
        common->read(bytes, rounds);
        for (int i = 0; i < rounds; ++i)
            EXPECT_EQ(bytes[i], static_cast<unsigned char>(i));
    }
}
