#include "DiskConfinement.h"

#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

TEST(DiskConfinementTest, DiskReachesItsOwnFolderAndThoseThatAreAllowed) {
    const P<IFileSystem> files(new CMemoryFileSystem);
    const CURI disk("file:///disks/one/disk.vmdk");
    const P<CConfinedFileSystem> alone = confineToDisk(files.get(), disk, {});
    const P<CConfinedFileSystem> more = confineToDisk(files.get(), disk, {CURI("file:///bases")});

    EXPECT_TRUE(alone->isAllowed(CURI("file:///disks/one/disk-s00001.vmdk")));
    EXPECT_TRUE(alone->isAllowed(CURI("file:///disks/one/below/base.vmdk")));
    EXPECT_FALSE(alone->isAllowed(CURI("file:///disks/two/disk.vmdk")));
    EXPECT_FALSE(alone->isAllowed(CURI("file:///disks/one/../two/disk.vmdk")));
    EXPECT_FALSE(alone->isAllowed(CURI("file:///bases/base.vmdk")));
    EXPECT_TRUE(more->isAllowed(CURI("file:///bases/base.vmdk")));
    EXPECT_FALSE(more->isAllowed(CURI("file:///disks/two/disk.vmdk")));
}

} // namespace
} // namespace tessel
