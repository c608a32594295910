#include "CInterruptibleFiles.h"

#include "Errors.h"
#include "lum/CMemoryFileSystem.h"
#include "platform.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace tessel;
using namespace tessel::cli;

TEST(CInterruptibleFilesTest, OpenNoMoreFilesOnceTheUserWantsToStop) {
    prepareProcess();
    const P<IFileSystem> memory(new CMemoryFileSystem);
    int opened = 0;
    const P<CInterruptibleFiles> files(new CInterruptibleFiles(memory.get(), [&] { ++opened; }));
    const CURI uri(String("memory:/folder/a"));
    files->openFile(uri, IIOStream::Access_ReadWrite);
    EXPECT_EQ(opened, 1);

    std::raise(SIGINT);
    EXPECT_THROW(files->openFile(uri, IIOStream::Access_Read), CInterrupted);
    // Whoever tidies up then may open what is needed for that.
    EXPECT_TRUE(files->openFile(uri, IIOStream::Access_Read));
    EXPECT_EQ(opened, 1);
}
