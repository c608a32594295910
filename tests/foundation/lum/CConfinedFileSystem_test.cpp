#include "lum/CConfinedFileSystem.h"

#include "ErrorMatchers.h"
#include "lum/CFileSystemError.h"
#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

void makeFile(IFileSystem& files, const CURI& uri) {
    files.openFile(uri, IIOStream::Access_ReadWrite)->write("x", 1);
}

class CConfinedFileSystemTest : public testing::Test {
protected:
    CURI uriOf(const char* text) const { return CURI(String(text)); }

    P<CMemoryFileSystem> m_all{new CMemoryFileSystem};
    P<CConfinedFileSystem> m_confined{new CConfinedFileSystem(m_all.get(), CURI(String("file:///vm/disk")))};
};

TEST_F(CConfinedFileSystemTest, ReachesFilesInItsFolderAndBelow) {
    for (const char* uri :
         {"file:///vm/disk/a.vmdk", "file:///vm/disk/sub/b.vmdk", "file:///vm/disk/x/../c.vmdk"}) {
        makeFile(*m_confined, uriOf(uri));
        EXPECT_TRUE(m_all->fileExists(uriOf(uri))) << uri;
        EXPECT_TRUE(m_confined->fileExists(uriOf(uri))) << uri;
        EXPECT_TRUE(m_confined->isFileOfStream(uriOf(uri),
                                               *m_confined->openFile(uriOf(uri), IIOStream::Access_Read)));
        m_confined->deleteFile(uriOf(uri), false);
        EXPECT_FALSE(m_all->fileExists(uriOf(uri))) << uri;
    }
}

TEST_F(CConfinedFileSystemTest, RefusesWhateverLiesElsewhere) {
    for (const char* uri :
         {"file:///etc/passwd", "file:///vm/disk", "file:///vm/disk2/a.vmdk", "file:///vm/a.vmdk",
          "file:///vm/disk/../a.vmdk", "file:///vm/disk/%2e%2e/a.vmdk", "file://server/vm/disk/a.vmdk",
          "mem:///vm/disk/a.vmdk", "file:///C:/vm/disk/a.vmdk", "a.vmdk"}) {
        EXPECT_FALSE(m_confined->isAllowed(uriOf(uri))) << uri;
        const auto refusal = [&](auto action) {
            try {
                action();
                ADD_FAILURE() << uri;
            } catch (const CFileSystemError& error) {
                EXPECT_EQ(error.getProblem(), CFileSystemError::Problem_AccessDenied) << uri;
                EXPECT_EQ(error.getMessage(), String("The file is outside the folders that may be used."));
                EXPECT_EQ(error.getProps().getValue("uri"), uriOf(uri).toString(true));
                EXPECT_EQ(error.getProps().getValue("allowed"), String("file:///vm/disk"));
            }
        };
        refusal([&] { m_confined->openFile(uriOf(uri), IIOStream::Access_ReadWrite); });
        refusal([&] { m_confined->fileExists(uriOf(uri)); });
        refusal([&] { m_confined->deleteFile(uriOf(uri), true); });
        refusal([&] { m_confined->followLinks(uriOf(uri)); });
    }
    EXPECT_TRUE(m_all->listFiles().empty());
}

TEST_F(CConfinedFileSystemTest, ReachesFoldersThatAreAllowedLater) {
    m_confined->allow(uriOf("file:///parents"));
    makeFile(*m_confined, uriOf("file:///parents/p.vmdk"));
    EXPECT_TRUE(m_all->fileExists(uriOf("file:///parents/p.vmdk")));
    EXPECT_FALSE(m_confined->isAllowed(uriOf("file:///other/p.vmdk")));
}

} // namespace
} // namespace lum
