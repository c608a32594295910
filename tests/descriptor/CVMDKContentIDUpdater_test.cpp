#include "tessel/CVMDKContentIDUpdater.h"

#include "CEventFileSystem.h"
#include "CFaultFileSystem.h"
#include "CRecordingFileSystem.h"
#include "DescriptorText.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Opening = CRecordingFileSystem::Opening;
using Operation = CRecordingStream::Operation;

const CURI mainURI(String("memory:/vm/disk.vmdk"));
const CURI extentURI(String("memory:/vm/disk-s00000.vmdk"));
constexpr unsigned int oldID = 0x12345678;
constexpr int areaSectors = 2;

/// An extent that is written, and the updater that it tells of its changes. Between them and the files
/// in memory stand faults and, on top, a record of what was asked.
class CVMDKContentIDUpdaterTest : public ::testing::Test {
protected:
    /// A disk of one file, descriptor included.
    void openSingleFileDisk() {
        createExtent(mainURI, parseDescriptor("version=1\nCID=12345678\n").get());
        openExtent(mainURI);
    }

    /// The second extent of a disk whose descriptor is in its first.
    void openSecondExtent() {
        createExtent(mainURI, parseDescriptor("version=1\nCID=12345678\n").get());
        createExtent(extentURI, nullptr);
        openExtent(extentURI);
    }

    /// A disk whose descriptor has a file of its own, with room for the line that says its encoding.
    void openSplitDisk() {
        createExtent(extentURI, nullptr);
        const P<IIOStream> stream = m_memory->openFile(mainURI, IIOStream::Access_ReadWrite);
        parseDescriptor("version=1\nCID=12345678\n")->store(*stream, 512, Bytes(512));
        openExtent(extentURI);
    }

    void openExtent(const CURI& uri) {
        const CURI oddlyWritten(String("memory:/vm/../vm/./disk.vmdk"));
        m_updater = new CVMDKContentIDUpdater(m_files.get(), oddlyWritten, m_descriptor.get());
        m_extent = new CVMDKSparseExtentFile(
            openVMDKFileStream(m_files.get(), uri, IIOStream::Access_ReadWrite).get(),
            IIOStream::Access_ReadWrite, 0, -1, P<CVMDKGrainTableCache>(new CVMDKGrainTableCache).get(),
            nullptr, m_updater.get(), nullptr, TCryptBuffer<unsigned char>(), Bytes());
        m_files->takeOpenings();
    }

    void write(char c) {
        m_extent->seek(0);
        m_extent->write(&c, 1);
    }

    unsigned int idInMemory() const { return m_descriptor->getContentID(); }
    /// What somebody else who opens the main file finds.
    unsigned int idInFile() const {
        const P<IIOStream> stream = m_memory->openFile(mainURI, IIOStream::Access_Read);
        const P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read));
        return accessor->getDescriptor()->getContentID();
    }

    void expectOldID() const {
        EXPECT_EQ(idInMemory(), oldID);
        EXPECT_EQ(idInFile(), oldID);
    }
    void expectNewID() const {
        EXPECT_NE(idInMemory(), oldID);
        EXPECT_EQ(idInMemory(), idInFile());
    }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_memory.get())};
    P<CRecordingFileSystem> m_files{new CRecordingFileSystem(m_faults.get())};
    P<CVMDKDescriptor> m_descriptor = parseDescriptor("version=1\nCID=12345678\n");
    P<CVMDKContentIDUpdater> m_updater;
    P<CVMDKSparseExtentFile> m_extent;

private:
    void createExtent(const CURI& uri, CVMDKDescriptor* descriptor) {
        createEmptyVMDKSparseExtentFile(m_memory.get(), uri, false, 4, 128, Bytes(2048), descriptor,
                                        areaSectors, Bytes());
    }
};

/// How often the descriptor's area of a single-file disk was written.
int countDescriptorWrites(CRecordingStream& stream) {
    int count = 0;
    for (const Operation& operation : stream.takeOperations())
        count += operation.kind == CRecordingStream::Write && operation.position < (1 + areaSectors) * 512;
    return count;
}

} // namespace

TEST_F(CVMDKContentIDUpdaterTest, FirstChangeGivesTheDiskANewContentIDOnDiskAndInMemory) {
    openSingleFileDisk();
    expectOldID();
    write('x');
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, EmbeddedDescriptorIsWrittenThroughTheExtentsOwnStream) {
    openSingleFileDisk();
    write('x');
    m_extent->flushChanges();
    EXPECT_THAT(m_files->takeOpenings(), IsEmpty());
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, ExtentIsTheMainFileHoweverItsNameIsWritten) {
    openSingleFileDisk();
    openExtent(CURI(String("memory:/vm/sub/.././disk.vmdk")));
    write('x');
    m_extent->flushChanges();
    EXPECT_THAT(m_files->takeOpenings(), IsEmpty());
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, DescriptorInTheFirstExtentIsChangedForTheSecond) {
    openSecondExtent();
    write('x');
    EXPECT_THAT(m_files->takeOpenings(), ElementsAre(Opening{mainURI, IIOStream::Access_ReadWrite}));
    expectNewID();
    const unsigned int id = idInMemory();
    write('y');
    m_extent->flushChanges();
    EXPECT_THAT(m_files->takeOpenings(), IsEmpty());
    EXPECT_EQ(idInFile(), id);
}

TEST_F(CVMDKContentIDUpdaterTest, DescriptorFileIsClosedBeforeTheChangeIsMade) {
    openSplitDisk();
    const P<CEventFileSystem> events(new CEventFileSystem(m_memory.get()));
    const P<CVMDKContentIDUpdater> updater(
        new CVMDKContentIDUpdater(events.get(), mainURI, m_descriptor.get()));
    updater->onDiskAboutToChange(*m_extent);
    EXPECT_THAT(events->getOpenFiles(), IsEmpty());
    const std::vector<std::string> done = events->takeEvents();
    ASSERT_GE(done.size(), 3U);
    EXPECT_EQ(done.front(), "open+ disk.vmdk");
    EXPECT_EQ(done[done.size() - 2], "flush disk.vmdk");
    EXPECT_EQ(done.back(), "close disk.vmdk");
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, DescriptorFileIsOpenedOnceForWriting) {
    openSplitDisk();
    write('x');
    write('y');
    EXPECT_THAT(m_files->takeOpenings(), ElementsAre(Opening{mainURI, IIOStream::Access_ReadWrite}));
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, SeveralChangesStoreOnce) {
    openSingleFileDisk();
    write('x');
    const unsigned int id = idInMemory();
    EXPECT_EQ(countDescriptorWrites(m_files->getLastStream()), 1);
    write('y');
    m_extent->flushChanges();
    write('z');
    m_extent->flushChanges();
    EXPECT_EQ(countDescriptorWrites(m_files->getLastStream()), 0);
    EXPECT_EQ(idInMemory(), id);
    EXPECT_EQ(idInFile(), id);
}

TEST_F(CVMDKContentIDUpdaterTest, NewContentIDIsDurableBeforeTheChangeReachesTheFile) {
    openSingleFileDisk();
    m_files->getLastStream().takeOperations();
    write('x');
    m_extent->flushChanges();
    TArray<CRecordingStream::Kind> kinds;
    TArray<int64> positions;
    for (const Operation& operation : m_files->getLastStream().takeOperations())
        if (operation.kind != CRecordingStream::Read) {
            kinds.push_back(operation.kind);
            positions.push_back(operation.position);
        }
    ASSERT_GE(kinds.size(), 3U);
    EXPECT_EQ(kinds[0], CRecordingStream::Write);
    EXPECT_EQ(positions[0], 512);
    EXPECT_EQ(kinds[1], CRecordingStream::Flush);
    EXPECT_EQ(kinds[2], CRecordingStream::Write);
    EXPECT_GE(positions[2], (1 + areaSectors) * 512);
}

TEST_F(CVMDKContentIDUpdaterTest, ReadingChangesNothing) {
    openSingleFileDisk();
    char c = 0;
    m_extent->read(&c, 1);
    m_extent->flushChanges();
    m_extent = nullptr;
    expectOldID();
}

TEST_F(CVMDKContentIDUpdaterTest, NothingIsStoredWhileUpdatesAreDisabled) {
    openSingleFileDisk();
    m_updater->setContentIDUpdatesEnabled(false);
    write('x');
    m_extent->flushChanges();
    expectOldID();
    EXPECT_EQ(countDescriptorWrites(m_files->getLastStream()), 0);

    m_updater->setContentIDUpdatesEnabled(true);
    write('y');
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, EnablingAgainAfterAChangeBringsNoSecondOne) {
    openSingleFileDisk();
    write('x');
    const unsigned int id = idInMemory();
    m_updater->setContentIDUpdatesEnabled(false);
    m_updater->setContentIDUpdatesEnabled(true);
    write('y');
    EXPECT_EQ(idInMemory(), id);
    EXPECT_EQ(idInFile(), id);
}

TEST_F(CVMDKContentIDUpdaterTest, FailedWriteLeavesTheOldIDInMemoryAndTheNextChangeTriesAgain) {
    for (const auto operation : {FaultRule::Write, FaultRule::Flush}) {
        m_extent = nullptr;
        m_memory = new CMemoryFileSystem;
        m_faults = new CFaultFileSystem(m_memory.get());
        m_files = new CRecordingFileSystem(m_faults.get());
        m_descriptor = parseDescriptor("version=1\nCID=12345678\n");
        openSingleFileDisk();
        m_faults->addRule({.operation = operation});
        if (operation == FaultRule::Write)
            EXPECT_LUM_ERROR(
                write('x'), CIOError, 2, "Cannot write to file: Injected fault",
                {{"uri", mainURI.toString(true)}, {"position", "512"}, {"bytesToWrite", "1024"}});
        else
            EXPECT_LUM_ERROR(write('x'), CIOError, 2, "Cannot flush file: Injected fault",
                             {{"uri", mainURI.toString(true)}});
        EXPECT_EQ(m_faults->getHits(), 1);
        EXPECT_EQ(idInMemory(), oldID);

        write('y');
        expectNewID();
        m_extent->flushChanges();
        expectNewID();
        m_extent = nullptr;
        expectNewID();
    }
}

TEST_F(CVMDKContentIDUpdaterTest, FailedWriteToADescriptorFileIsTriedAgainToo) {
    openSplitDisk();
    m_faults->addRule({.operation = FaultRule::Write, .fileSuffix = "disk.vmdk"});
    EXPECT_LUM_ERROR(write('x'), CIOError, 2, "Cannot write to file: Injected fault",
                     {{"uri", mainURI.toString(true)}, {"position", "0"}, {"bytesToWrite", "512"}});
    EXPECT_EQ(idInMemory(), oldID);
    write('y');
    expectNewID();
}

TEST_F(CVMDKContentIDUpdaterTest, ChangeThatCouldNotBeAnnouncedIsNotMade) {
    openSplitDisk();
    m_faults->addRule({.operation = FaultRule::Open, .fileSuffix = "disk.vmdk", .always = true});
    EXPECT_FILE_SYSTEM_ERROR(write('x'), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", mainURI.toString(true)}});
    m_extent->flushChanges();
    char c = 'c';
    m_extent->seek(0);
    m_extent->read(&c, 1);
    EXPECT_EQ(c, '\0');
    EXPECT_FALSE(m_extent->isGrainWritten());
    expectOldID();
}

TEST_F(CVMDKContentIDUpdaterTest, MissingMainFileIsNotCreated) {
    openSplitDisk();
    m_memory->deleteFile(mainURI, false);
    EXPECT_FILE_SYSTEM_ERROR(write('x'), CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory",
                             {{"uri", mainURI.toString(true)}});
    EXPECT_FALSE(m_memory->fileExists(mainURI));
    EXPECT_EQ(idInMemory(), oldID);
}

TEST_F(CVMDKContentIDUpdaterTest, DescriptorWithoutRoomKeepsItsContentID) {
    openSplitDisk();
    const std::string text = "version=1\nCID=12345678\n"; // no room for the line that says its encoding
    const P<IIOStream> stream = m_memory->openFile(mainURI, IIOStream::Access_ReadWrite);
    stream->setLength(0);
    stream->write(text.data(), static_cast<int>(text.size()));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_LUM_ERROR(
            write('x'), CError, -1,
            "Internal error: actual VMDK descriptor size exceeds target size (actual size: 40, target "
            "size: 23");
        expectOldID();
    }
    EXPECT_EQ(textOf(readAll(*stream)), text);
}

} // namespace tessel::test
