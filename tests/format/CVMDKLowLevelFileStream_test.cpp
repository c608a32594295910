#include "tessel/CVMDKLowLevelFileStream.h"

#include "CRecordingFileSystem.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;

const CURI uri(String("memory:/folder/disk.vmdk"));

class CVMDKLowLevelFileStreamTest : public ::testing::Test {
protected:
    P<CVMDKLowLevelFileStream> open(IIOStream::Access access) {
        return new CVMDKLowLevelFileStream(m_files.get(), uri, access);
    }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CRecordingFileSystem> m_files{new CRecordingFileSystem(m_memory.get())};
};

} // namespace

TEST_F(CVMDKLowLevelFileStreamTest, OpensTheFileOnceWithTheGivenAccess) {
    const P<CVMDKLowLevelFileStream> writer = open(IIOStream::Access_ReadWrite);
    const P<CVMDKLowLevelFileStream> reader = open(IIOStream::Access_Read);
    EXPECT_THAT(m_files->takeOpenings(),
                ElementsAre(CRecordingFileSystem::Opening{uri, IIOStream::Access_ReadWrite},
                            CRecordingFileSystem::Opening{uri, IIOStream::Access_Read}));
    EXPECT_EQ(writer->getURI(), uri);
}

TEST_F(CVMDKLowLevelFileStreamTest, JoinsSmallWritesAndServesSmallReadsFromMemory) {
    const P<CVMDKLowLevelFileStream> stream = open(IIOStream::Access_ReadWrite);
    for (int i = 0; i < 100; ++i)
        stream->write("0123456789", 10);
    stream->flush();
    using Operation = CRecordingStream::Operation;
    EXPECT_THAT(m_files->getLastStream().takeOperations(),
                ElementsAre(Operation{CRecordingStream::Write, 0, 1000}, Operation{CRecordingStream::Flush}));

    stream->seek(0);
    char text[10];
    for (int i = 0; i < 100; ++i)
        stream->read(text, 10);
    EXPECT_LT(m_files->getLastStream().takeOperations().size(), 10U);
    EXPECT_EQ(std::string(text, 10), "0123456789");
}

TEST_F(CVMDKLowLevelFileStreamTest, MissingFileIsTheFileSystemsError) {
    EXPECT_FILE_SYSTEM_ERROR(open(IIOStream::Access_Read), CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory", {{"uri", uri.toString(true)}});
}

} // namespace tessel::test
