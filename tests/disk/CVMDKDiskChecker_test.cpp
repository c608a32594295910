#include "tessel/CVMDKDiskChecker.h"

#include "CEventFileSystem.h"
#include "CFaultFileSystem.h"
#include "CheckFixture.h"
#include "creek/CMiniZCompressor.h"
#include "lum/LittleEndian.h"

namespace tessel::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A record of grain 0 that inflates to so many bytes.
TBuffer<unsigned char> makeRecord(int size) {
    const Bytes data = randomBytes(3, size);
    creek::CMiniZCompressor compressor(6);
    TBuffer<unsigned char> record(12 + compressor.getCompressedSizeUpperBound(size));
    const int stored = compressor.compressSingleStep(data.data(), size, record.getData() + 12,
                                                     static_cast<int>(record.getUsed() - 12));
    storeLittleEndian<uint64>(record.getData(), 0);
    storeLittleEndian<uint32>(record.getData() + 8, static_cast<uint32>(stored));
    record.setUsed((12 + stored + 511) / 512 * 512);
    return record;
}

class CStopReport : public CBase, public IVMDKCheckReport {
public:
    void addFinding(const Finding& /*finding*/) override {
        ++count;
        throw CError("enough");
    }
    void onProgress(int64 /*position*/) override {}
    int count = 0;
};

} // namespace

class CVMDKDiskCheckerTest : public CheckTest {
protected:
    void writePrepared(const CheckedKind& kind, int64 position, const TBuffer<unsigned char>& record) {
        const P<CVMDKDisk> disk = openKind(kind);
        disk->seek(position);
        disk->writePreparedGrainData(record);
        disk->flushChanges();
    }
};

// --- Disks that are whole ---

TEST_F(CVMDKDiskCheckerTest, FindsNothingInDisksThatAreWhole) {
    for (const CheckedKind& kind : checkedKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        EXPECT_THAT(check(kind.password), IsEmpty());
        EXPECT_THAT(quickCheck(), IsEmpty());
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsNothingInEmptyDisks) {
    for (const CheckedKind& kind : checkedKinds()) {
        SCOPED_TRACE(kind.name);
        create({.password = kind.password, .compressed = kind.isCompressed}) = nullptr;
        EXPECT_THAT(check(kind.password), IsEmpty());
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsNothingButDeadSpaceInDisksThatWereRewrittenManyTimes) {
    for (const CheckedKind& kind : checkedKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        std::mt19937 random(7);
        for (int round = 0; round < 6; ++round) {
            const P<CVMDKDisk> disk = openKind(kind);
            for (int i = 0; i < 12; ++i) {
                Bytes data = randomBytes(random(), 1 + static_cast<int64>(random() % (3 * grainBytes)));
                if (random() % 2 == 0) // compresses well, and leaves a slot too small for what comes later
                    std::fill(data.begin(), data.end(), static_cast<unsigned char>(random() % 3));
                const auto room = static_cast<unsigned>(disk->getSizeBytes() / 8 - 4 * grainBytes);
                writeAt(*disk, static_cast<int64>(random() % room), data);
                if (random() % 4 == 0)
                    disk->flushChanges();
            }
        }
        const std::vector<Finding> findings = check(kind.password);
        EXPECT_THAT(withoutDeadSpace(findings), IsEmpty());
        EXPECT_EQ(findings.empty(), !kind.isCompressed) << "grains of compressed disks have moved";
        EXPECT_THAT(withoutDeadSpace(quickCheck()), IsEmpty());
    }
}

TEST_F(CVMDKDiskCheckerTest, CountsWhatItHasLookedAt) {
    makeDisk({.name = "", .isSplit = true});
    const P<CFindings> findings(new CFindings);
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files(), uri("disk.vmdk")));
    checker->check("", false, *findings);
    EXPECT_EQ(checker->getExtentCount(), 2);
    EXPECT_EQ(checker->getGrainCount(), 14);
    EXPECT_GT(findings->lastPosition, 56 * MiB);
}

TEST_F(CVMDKDiskCheckerTest, TellsHowMuchSpaceIsDead) {
    {
        const P<CVMDKDisk> disk = create({.compressed = true});
        writeAt(*disk, 0, Bytes(grainBytes, 'x'));
        writeAt(*disk, grainBytes, randomBytes(1, grainBytes));
        disk->flushChanges();
        writeAt(*disk, 0, randomBytes(2, grainBytes));
    }
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_DeadSpace);
    EXPECT_EQ(findings[0].severity, Finding::Severity_Information);
    EXPECT_EQ(findings[0].message, "512 bytes of the file are not used any more");
}

// --- Contents ---

TEST_F(CVMDKDiskCheckerTest, FindsGrainsThatInflateToAnotherSize) {
    for (const CheckedKind& kind : checkedKinds()) {
        if (!kind.isCompressed)
            continue;
        for (const int size : {grainSize - 1, grainSize / 2, grainSize + 1}) {
            SCOPED_TRACE(std::string(kind.name) + ", " + std::to_string(size) + " bytes");
            makeDisk(kind);
            writePrepared(kind, 512 * grainBytes, makeRecord(size));
            const std::vector<Finding> findings = withoutDeadSpace(check(kind.password));
            ASSERT_EQ(findings.size(), 1U);
            EXPECT_EQ(findings[0].kind, Finding::Kind_RecordSizeWrong);
            EXPECT_EQ(findings[0].severity, Finding::Severity_Damage);
            EXPECT_EQ(findings[0].tableIndex, 1);
            EXPECT_EQ(findings[0].grainIndex, 512);
            EXPECT_EQ(findings[0].diskPosition, 512 * grainBytes);
            EXPECT_THAT(withoutDeadSpace(quickCheck()), IsEmpty());
        }
    }
}

TEST_F(CVMDKDiskCheckerTest, NamesWhatTheSystemRefusesToRead) {
    for (const bool isCompressed : {false, true}) {
        makeDisk({.name = "", .isCompressed = isCompressed});
        const int64 slot = CExtentBytes(getFile("disk.vmdk")).slot(513);
        const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
        faults->addRule({.operation = FaultRule::Read,
                         .rangeStart = slot + 1000,
                         .rangeEnd = slot + 1001,
                         .always = true});
        m_files = faults;
        const std::vector<Finding> findings = check();
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].kind, Finding::Kind_Unreadable);
        EXPECT_EQ(findings[0].severity, Finding::Severity_Unchecked);
        EXPECT_EQ(findings[0].grainIndex, 513);
        EXPECT_EQ(findings[0].position, slot);
        EXPECT_THAT(quickCheck(), IsEmpty());
        m_files = m_memory;
    }
}

// --- Files of the disk ---

TEST_F(CVMDKDiskCheckerTest, FindsThatAnExtentIsMissing) {
    makeDisk({.name = "", .isSplit = true});
    m_memory->deleteFile(uri(extentNames()[1]), false);
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_ExtentMissing);
    EXPECT_EQ(findings[0].severity, Finding::Severity_Damage);
    EXPECT_EQ(findings[0].extentIndex, 1);
    EXPECT_EQ(findings[0].uri, uri(extentNames()[1]));
}

TEST_F(CVMDKDiskCheckerTest, NotesThatAnExtentOnDemandHasNoFileYet) {
    makeDisk({.name = "", .isSplit = true, .isOnDemand = true});
    const std::vector<String> names = extentNames();
    m_memory->deleteFile(uri(names[1]), false);
    std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_ExtentMissing);
    EXPECT_EQ(findings[0].severity, Finding::Severity_Information);
    // The first one must always be there.
    m_memory->deleteFile(uri(names[0]), false);
    findings = check();
    ASSERT_EQ(findings.size(), 2U);
    EXPECT_EQ(findings[0].severity, Finding::Severity_Damage);
}

TEST_F(CVMDKDiskCheckerTest, NotesThatARenamedFileIsNotWhatIsChecked) {
    for (const bool isCompressed : {false, true}) {
        makeDisk({.name = "", .isCompressed = isCompressed});
        putFile("copy.vmdk", getFile("disk.vmdk"));
        const std::vector<Finding> findings = check("", false, "copy.vmdk");
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].kind, Finding::Kind_MainFileUnused);
        EXPECT_EQ(findings[0].severity, Finding::Severity_Information);
        EXPECT_EQ(findings[0].uri, uri("copy.vmdk"));
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsThatTwoExtentsHaveOneFile) {
    putExtent("a.vmdk", 128);
    putSplitDescriptor({"RW 16384 SPARSE \"a.vmdk\"", "RW 16384 SPARSE \"./a.vmdk\""});
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_ExtentMismatch);
    EXPECT_EQ(findings[0].extentIndex, 1);
}

TEST_F(CVMDKDiskCheckerTest, FindsExtentsOfAnotherKind) {
    putExtent("a.vmdk", 128);
    putExtent("b.vmdk", 256, 64);
    putExtent("c.vmdk", 128, 128, true);
    putExtent("d.vmdk", 127);
    putSplitDescriptor({"RW 16384 SPARSE \"a.vmdk\"", "RW 16384 SPARSE \"b.vmdk\"",
                        "RW 16384 SPARSE \"c.vmdk\"", "RW 16384 SPARSE \"d.vmdk\""});
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(findings[i].kind, Finding::Kind_ExtentMismatch);
        EXPECT_EQ(findings[i].extentIndex, static_cast<int64>(i) + 1);
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsAnExtentThatIsNoExtent) {
    makeDisk({.name = "", .isSplit = true});
    for (const std::string& contents : {std::string(), std::string(100, 'x'), std::string(100000, '\0')}) {
        putFile(extentNames()[1], contents);
        EXPECT_THAT(check(), HasFinding(Finding::Kind_HeaderInvalid));
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsAnotherKeyWithoutAPassword) {
    makeDisk({.name = "", .isSplit = true, .password = "secret"});
    spoil(extentNames()[1], [](CExtentBytes& extent) { extent.flip(90); });
    for (const bool quick : {false, true}) {
        const std::vector<Finding> findings = check("", quick);
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].kind, Finding::Kind_ExtentMismatch);
        EXPECT_EQ(findings[0].extentIndex, 1);
    }
}

TEST_F(CVMDKDiskCheckerTest, OpensNothingButTheDisksFilesAndOnlyForReading) {
    makeDisk({.name = "", .isSplit = true, .isChild = true});
    const P<CEventFileSystem> events(new CEventFileSystem(m_memory.get()));
    m_files = events;
    check();
    std::vector<std::string> opened = events->takeOpeningEvents();
    std::erase_if(opened, [](const std::string& event) { return event.ends_with(".lock"); });
    EXPECT_THAT(opened, ElementsAre("open disk.vmdk", "close disk.vmdk", "open parent.vmdk",
                                    "close parent.vmdk", "open disk-s00000.vmdk", "close disk-s00000.vmdk",
                                    "open disk-s00001.vmdk", "close disk-s00001.vmdk"));
    EXPECT_THAT(events->getOpenFiles(), IsEmpty());
}

// --- Parents ---

TEST_F(CVMDKDiskCheckerTest, FindsThatTheParentHasChanged) {
    for (const bool isCompressed : {false, true}) {
        makeDisk({.name = "", .isCompressed = isCompressed, .isChild = true});
        editDescriptor([](CVMDKDescriptor& parent) { parent.setContentID(0x12345678); }, "parent.vmdk");
        const std::vector<Finding> findings = check();
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].kind, Finding::Kind_ContentIDMismatch);
        EXPECT_EQ(findings[0].severity, Finding::Severity_Damage);
        EXPECT_EQ(findings[0].uri, uri("disk.vmdk"));
        EXPECT_TRUE(findings[0].message.Contains("12345678"));
        EXPECT_EQ(quickCheck().size(), 1U);
    }
}

TEST_F(CVMDKDiskCheckerTest, FindsThatAGrandparentHasChanged) {
    const auto idOf = [](CVMDKDisk& disk) { return disk.getDescriptor()->getContentID(); };
    const unsigned int grandparentID = idOf(*create({}, "grandparent.vmdk"));
    const unsigned int parentID =
        idOf(*create({.parentPath = "grandparent.vmdk", .parentID = grandparentID}, "parent.vmdk"));
    create({.parentPath = "parent.vmdk", .parentID = parentID}) = nullptr;
    EXPECT_THAT(check(), IsEmpty());
    writeAt(*open(forWriting, "grandparent.vmdk"), 0, randomBytes(1, 512));
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_ContentIDMismatch);
    EXPECT_EQ(findings[0].uri, uri("parent.vmdk"));
}

TEST_F(CVMDKDiskCheckerTest, FindsThatTheParentIsMissingOrNoDisk) {
    makeDisk({.name = "", .isChild = true});
    putFile("parent.vmdk", "nothing");
    EXPECT_THAT(check(), HasFinding(Finding::Kind_ParentMissing));
    m_memory->deleteFile(uri("parent.vmdk"), false);
    EXPECT_THAT(check(), HasFinding(Finding::Kind_ParentMissing));
    editDescriptor([](CVMDKDescriptor& child) { child.removeValue("parentFileNameHint"); });
    EXPECT_THAT(check(), HasFinding(Finding::Kind_ParentMissing));
}

TEST_F(CVMDKDiskCheckerTest, FindsAChainOfParentsThatComesBackToItself) {
    makeDisk({.name = "", .isChild = true});
    editDescriptor(
        [](CVMDKDescriptor& parent) {
            parent.setParentContentID(1);
            parent.setParentFileNameHint("disk.vmdk");
        },
        "parent.vmdk");
    EXPECT_THAT(check(), HasFinding(Finding::Kind_ParentChainInvalid));
}

// --- Disks that cannot be checked ---

TEST_F(CVMDKDiskCheckerTest, NeedsAPasswordOnlyForCompressedGrains) {
    const CheckedKind compressed{.name = "", .isCompressed = true, .password = "secret"};
    makeDisk(compressed);
    EXPECT_LUM_ERROR(check(), CError, -1, "VMDK is encrypted but no password provided",
                     {{"uri", path("disk.vmdk")}});
    EXPECT_THROW(check("wrong"), CError);
    EXPECT_THAT(check("", true), IsEmpty());
    makeDisk({.name = "", .password = "secret"});
    EXPECT_THAT(check(), IsEmpty());
    EXPECT_THROW(check("wrong"), CError);
}

TEST_F(CVMDKDiskCheckerTest, ThrowsWhenThereIsNoDisk) {
    EXPECT_THROW(check(), CError);
    putFile("disk.vmdk", "this is no disk");
    EXPECT_THROW(check(), CError);
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
}

TEST_F(CVMDKDiskCheckerTest, ThrowsWhenSomebodyWritesToTheDisk) {
    const P<CVMDKDisk> disk = create();
    EXPECT_THROW(check(), CError);
}

TEST_F(CVMDKDiskCheckerTest, LeavesTheLockToWhoeverHasTheDiskOpenForWriting) {
    const P<CVMDKDisk> disk = create();
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files(), uri("disk.vmdk")));
    const P<CFindings> findings(new CFindings);
    EXPECT_THROW(checker->check("", true, *findings), CError);
    checker->setLocks(false);
    checker->check("", true, *findings);
    EXPECT_EQ(checker->getExtentCount(), 1);
    EXPECT_THAT(findings->all, IsEmpty());
    EXPECT_THROW(check(), CError); // the disk is locked as before
}

TEST_F(CVMDKDiskCheckerTest, LeavesVariantsThatAreNotSupportedUnchecked) {
    makeDisk({.name = ""});
    spoil("disk.vmdk", [](CExtentBytes& extent) { extent.put32(8, extent.get32(8) | 4); });
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].kind, Finding::Kind_NotSupported);
    EXPECT_EQ(findings[0].severity, Finding::Severity_Unchecked);
}

TEST_F(CVMDKDiskCheckerTest, EndsWhenTheReportThrows) {
    makeDisk({.name = ""});
    spoil("disk.vmdk", [](CExtentBytes& extent) {
        extent.put32(extent.entry(0), 0);
        extent.put32(extent.entry(1), 0);
        extent.put32(extent.entry(512), 0);
    });
    const P<CStopReport> report(new CStopReport);
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files(), uri("disk.vmdk")));
    EXPECT_LUM_ERROR((checker->check("", false, *report)), CError, -1, "enough");
    EXPECT_EQ(report->count, 1);
}

// Whatever single byte of the metadata is changed, the check ends, and with something to tell or a disk that
// reads as before.
TEST_F(CVMDKDiskCheckerTest, BearsAnyByteOfTheMetadataChanged) {
    for (const bool isCompressed : {false, true}) {
        makeDisk({.name = "", .isCompressed = isCompressed});
        const std::string whole = getFile("disk.vmdk");
        const Bytes contents = readAt(*openForReading(), 0, 6 * grainBytes);
        std::mt19937 random(11);
        const CExtentBytes extent(whole);
        for (int i = 0; i < 300; ++i) {
            std::string spoiled = whole;
            const auto overhead = static_cast<unsigned>(extent.get64(64) * 512);
            // The tables rather than the descriptor, which takes most of the place.
            const unsigned start = i % 3 == 0 ? 0 : static_cast<unsigned>(extent.get64(48) * 512);
            const unsigned position =
                start + static_cast<unsigned>(random()) % (i % 3 == 0 ? 80 : overhead - start);
            spoiled[position] = static_cast<char>(spoiled[position] ^ (1 << random() % 8));
            putFile("disk.vmdk", spoiled);
            SCOPED_TRACE("byte " + std::to_string(position));
            std::vector<Finding> findings;
            try {
                findings = check();
            } catch (const CError&) {
                continue; // no disk any more, and said so
            }
            if (findings.empty()) {
                EXPECT_EQ(readAt(*openForReading(), 0, 6 * grainBytes), contents);
            }
        }
        putFile("disk.vmdk", whole);
        takeLog();
    }
}

} // namespace tessel::test
