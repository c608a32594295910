// A new extent file that cannot be finished goes again.

#include "Bytes.h"
#include "CFaultFileSystem.h"
#include "CForwardingStream.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/VMDKEmptyExtentFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

namespace tessel::test {
namespace {

const CURI uri(String("memory:/disks/new disk.vmdk"));
const String uriText = uri.toString(true);
const String creationFailed = "Error in CVMDKDisk::createEmptySparseExtentFile ('" + uriText +
                              "'). Deleting file and letting error through.";
const String deletionFailed = "Error deleting half-finished extent file. Ignoring.";

class VMDKEmptyExtentFileFaultTest : public ::testing::Test {
protected:
    void create(IFileSystem* files, CVMDKDescriptor* descriptor = nullptr, int64 descriptorSectors = 0) {
        // Of so many tables that it is written in several pieces.
        createEmptyVMDKSparseExtentFile(files, uri, true, 100 * 512, 8, Bytes(2048), descriptor,
                                        descriptorSectors, Bytes());
    }
    void create() { create(m_faults.get()); }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_memory.get())};
    CLogRecorder m_log;
};

/// Remembers how many of its streams were open when a file was deleted; its streams run out of memory
/// after a number of writes, and tell as they are closed that the last bytes found no room.
class CWatchingFileSystem : public CBase, public IFileSystem {
public:
    explicit CWatchingFileSystem(IFileSystem* below) : m_below(below) {}

    int writesLeft = INT32_MAX;
    bool closeFails = false;
    int deletions = 0;
    int openAtDeletion = 0;
    bool ignoreMissing = false;
    int openCount = 0;

    P<IIOStream> openFile(const CURI& fileURI, IIOStream::Access access) override {
        return new CStream(m_below->openFile(fileURI, access).get(), *this);
    }
    bool fileExists(const CURI& fileURI) override { return m_below->fileExists(fileURI); }
    void deleteFile(const CURI& fileURI, bool ignore) override {
        ++deletions;
        openAtDeletion += openCount;
        ignoreMissing = ignore;
        m_below->deleteFile(fileURI, ignore);
    }
    bool isFileOfStream(const CURI&, IIOStream&) override { return false; }

private:
    class CStream : public CForwardingStream {
    public:
        CStream(IIOStream* below, CWatchingFileSystem& owner) : CForwardingStream(below), m_owner(owner) {
            ++m_owner.openCount;
        }
        void write(const void* data, int size, IWriteBarrier* barrier) override {
            if (m_owner.writesLeft-- == 0)
                throw std::bad_alloc();
            CForwardingStream::write(data, size, barrier);
        }
        void close() override {
            --m_owner.openCount;
            CForwardingStream::close();
            if (m_owner.closeFails)
                throw CIOError(CIOError::Code_NoSpace, "Cannot close file");
        }

    private:
        CWatchingFileSystem& m_owner;
    };

    P<IFileSystem> m_below;
};

} // namespace

TEST_F(VMDKEmptyExtentFileFaultTest, FailureToOpenPassesThrough) {
    m_faults->addRule({.operation = FaultRule::Open});
    EXPECT_FILE_SYSTEM_ERROR(create(), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", uriText}});
    EXPECT_FALSE(m_memory->fileExists(uri));
    EXPECT_THAT(m_log.takeEntries(), ::testing::IsEmpty());
}

TEST_F(VMDKEmptyExtentFileFaultTest, EveryOperationFailsInTurnAndLeavesNoFile) {
    for (const FaultRule::Kind kind : {FaultRule::Refused, FaultRule::Short, FaultRule::FullDisk})
        for (const bool always : {false, true})
            for (const FaultRule::Operation operation :
                 {FaultRule::Write, FaultRule::Flush, FaultRule::SetLength}) {
                int nth = 1;
                for (;; ++nth) {
                    SCOPED_TRACE(::testing::Message() << "operation " << operation << ", kind " << kind
                                                      << ", nth " << nth << ", always " << always);
                    m_faults->clearRules();
                    m_faults->addRule({.operation = operation, .kind = kind, .nth = nth, .always = always});
                    const int hitsBefore = m_faults->getHits();
                    std::unique_ptr<CError> error;
                    try {
                        create();
                    } catch (const CError& caught) {
                        error = caught.clone();
                    }
                    if (m_faults->getHits() == hitsBefore) {
                        EXPECT_FALSE(error);
                        EXPECT_TRUE(m_memory->fileExists(uri));
                        m_memory->deleteFile(uri, false);
                        break;
                    }
                    ASSERT_TRUE(error);
                    EXPECT_EQ(std::string(error->getClassName()), "CIOError");
                    EXPECT_EQ(error->getCode(), kind == FaultRule::FullDisk ? 8 : 2);
                    EXPECT_TRUE(error->getMessage().EndsWith("Injected fault"));
                    EXPECT_EQ(error->getProps().getValue("uri"), uriText);
                    EXPECT_FALSE(m_memory->fileExists(uri));
                    EXPECT_THAT(m_log.takeEntries(),
                                ::testing::ElementsAre(CLogRecorder::Entry{
                                    ILogSink::Level_Error, creationFailed, error->getMessage(), ""}));
                }
                if (operation == FaultRule::Write)
                    EXPECT_GT(nth, 5);
                else // a flush behind the first header, the tables, and the last one
                    EXPECT_EQ(nth, operation == FaultRule::Flush ? 4 : 2);
            }
}

TEST_F(VMDKEmptyExtentFileFaultTest, FailedDeletionIsLoggedAndIgnored) {
    m_faults->addRule({.operation = FaultRule::Write, .nth = 2});
    m_faults->addRule({.operation = FaultRule::Delete});
    const auto error = catchError([this] { create(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getMessage(), "Cannot write to file: Injected fault");
    EXPECT_TRUE(m_memory->fileExists(uri));
    EXPECT_THAT(m_log.takeEntries(),
                ::testing::ElementsAre(CLogRecorder::Entry{ILogSink::Level_Error, creationFailed,
                                                           "Cannot write to file: Injected fault", ""},
                                       CLogRecorder::Entry{ILogSink::Level_Error, deletionFailed,
                                                           "Cannot delete file: Injected fault", ""}));
}

TEST_F(VMDKEmptyExtentFileFaultTest, DescriptorLargerThanItsAreaLeavesNoFile) {
    const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    for (int i = 0; i < 100; ++i)
        descriptor->addGenericLine("# a line", true); // 900 bytes
    const String message("Internal error: actual VMDK descriptor size exceeds target size (actual size: 917, "
                         "target size: 512");
    EXPECT_LUM_ERROR(create(m_faults.get(), descriptor.get(), 1), CError, -1, message);
    EXPECT_FALSE(m_memory->fileExists(uri));
    EXPECT_THAT(m_log.takeEntries(), ::testing::ElementsAre(CLogRecorder::Entry{
                                         ILogSink::Level_Error, creationFailed, message, ""}));
    create(m_faults.get(), descriptor.get(), 2);
    EXPECT_TRUE(m_memory->fileExists(uri));
}

TEST_F(VMDKEmptyExtentFileFaultTest, KeyHashTooLongForTheHeaderLeavesNoFile) {
    const String message("Key hash is too long for a VMDK sparse header: 428 bytes (at most 427).");
    EXPECT_INVALID_ARG_ERROR(createEmptyVMDKSparseExtentFile(m_faults.get(), uri, false, 10, 8, Bytes(512),
                                                             nullptr, 0, Bytes(428)),
                             "CVMDKSparseExtentHeader::setEncryptionKeyHash", message);
    EXPECT_FALSE(m_memory->fileExists(uri));
    EXPECT_THAT(m_log.takeEntries(), ::testing::ElementsAre(CLogRecorder::Entry{
                                         ILogSink::Level_Error, creationFailed, message, ""}));
}

TEST_F(VMDKEmptyExtentFileFaultTest, ZerosTooShortForTheDescriptorsAreaLeaveNoFile) {
    const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    EXPECT_THROW(create(m_faults.get(), descriptor.get(), 20), CError);
    EXPECT_FALSE(m_memory->fileExists(uri));
    EXPECT_EQ(m_log.takeEntries().size(), 1U);
}

TEST_F(VMDKEmptyExtentFileFaultTest, FileIsClosedBeforeItIsDeleted) {
    const P<CWatchingFileSystem> files(new CWatchingFileSystem(m_faults.get()));
    m_faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::FullDisk, .nth = 2, .always = true});
    EXPECT_THROW(create(files.get()), CIOError);
    EXPECT_EQ(files->deletions, 1);
    EXPECT_EQ(files->openAtDeletion, 0);
    EXPECT_TRUE(files->ignoreMissing);
    EXPECT_EQ(m_log.takeEntries().size(), 1U);
}

TEST_F(VMDKEmptyExtentFileFaultTest, FailureToCloseReachesTheCallerAndLeavesNoFile) {
    const P<CWatchingFileSystem> files(new CWatchingFileSystem(m_memory.get()));
    files->closeFails = true;
    EXPECT_LUM_ERROR(create(files.get()), CIOError, 8, "Cannot close file");
    EXPECT_EQ(files->deletions, 1);
    EXPECT_EQ(files->openAtDeletion, 0);
    EXPECT_FALSE(m_memory->fileExists(uri));
    EXPECT_THAT(m_log.takeEntries(), ::testing::ElementsAre(CLogRecorder::Entry{
                                         ILogSink::Level_Error, creationFailed, "Cannot close file", ""}));
}

TEST_F(VMDKEmptyExtentFileFaultTest, ErrorsOfOtherKindsLeaveNoFileEither) {
    const P<CWatchingFileSystem> files(new CWatchingFileSystem(m_memory.get()));
    files->writesLeft = 2;
    EXPECT_THROW(create(files.get()), std::bad_alloc);
    EXPECT_EQ(files->deletions, 1);
    EXPECT_FALSE(m_memory->fileExists(uri));
    const TArray<CLogRecorder::Entry> log = m_log.takeEntries();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].message, creationFailed);
}

} // namespace tessel::test
