// Creating a disk while the file system fails: every failure is seen, and what it leaves behind is no disk,
// an empty one, or the older one that was there; never a mixture.

#include "CFaultFileSystem.h"
#include "DiskTest.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKSparseExtentHeader.h"

using namespace tessel;
using namespace tessel::test;

namespace {

struct FaultRow {
    const char* name;
    DiskOptions options;
    FaultRule::Kind kind;
    bool always;
};

void PrintTo(const FaultRow& row, std::ostream* out) {
    *out << row.name;
}

std::string nameOf(const ::testing::TestParamInfo<FaultRow>& info) {
    static const char* const kinds[] = {"Refused", "Short", "FullDisk"};
    return std::string(info.param.name) + kinds[info.param.kind] +
           (info.param.always ? "FromThenOn" : "Once");
}

std::vector<FaultRow> faultRows() {
    std::vector<FaultRow> rows;
    const DiskOptions split{.limit = 3 * MiB + 2 * 65536};
    DiskOptions splitOnDemand = split;
    splitOnDemand.onDemand = true;
    for (const bool always : {false, true})
        for (const FaultRule::Kind kind : {FaultRule::Refused, FaultRule::Short, FaultRule::FullDisk}) {
            rows.push_back({"Plain", {}, kind, always});
            rows.push_back({"Split", split, kind, always});
            rows.push_back({"SplitOnDemand", splitOnDemand, kind, always});
            rows.push_back({"Compressed", {.compressed = true}, kind, always});
            rows.push_back({"CompressedSplit", {.compressed = true, .limit = 11 * MiB}, kind, always});
        }
    rows.push_back({"Encrypted", {.password = "secret", .limit = 3 * MiB}, FaultRule::Refused, false});
    return rows;
}

class CVMDKDiskCreateFaultsTest : public DiskTest, public ::testing::WithParamInterface<FaultRow> {
protected:
    /// Lets the nth operation of creating fail, for every kind of operation and every n that there is, in
    /// files that `prepare` has set up; `check` looks at what is left of a disk that could not be made.
    void failEveryOperation(const std::function<void()>& prepare, const std::function<void()>& check) {
        int faults = 0;
        for (const FaultRule::Operation operation :
             {FaultRule::Open, FaultRule::Read, FaultRule::Write, FaultRule::Flush, FaultRule::SetLength,
              FaultRule::Delete, FaultRule::Lock}) {
            // A lock that is never free is waited for.
            if (operation == FaultRule::Lock && GetParam().always)
                continue;
            int nth = 1;
            for (; failOperation(operation, nth, prepare, check); ++nth)
                ASSERT_LT(nth, 1000) << "creating a disk takes too many operations";
            faults += nth - 1;
        }
        EXPECT_GT(faults, 10);
    }

    /// What can be read of the disk, if it can be opened: the first sector of every grain, until the first
    /// error.
    Bytes readable() {
        Bytes bytes;
        try {
            const P<CVMDKDisk> disk = open(forReading, "disk.vmdk", GetParam().options.password);
            for (int64 position = 0; position < disk->getSizeBytes(); position += grainBytes) {
                const Bytes sector = readAt(*disk, position, 512);
                bytes.insert(bytes.end(), sector.begin(), sector.end());
            }
        } catch (const CError&) {
        }
        takeLog();
        return bytes;
    }

    /// Extents that are there are finished: their headers know where the grain directories are.
    void expectWholeExtents() {
        for (const char* const name : {"disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"}) {
            if (!exists(name))
                continue;
            const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
            CDataInStream in(stream.get());
            const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
            EXPECT_NO_THROW(header->load(in)) << name;
            EXPECT_GT(header->getGrainDirectoryOffsetSectors(), 0U) << name;
        }
    }

private:
    /// False when there is no such operation.
    bool failOperation(FaultRule::Operation operation, int nth, const std::function<void()>& prepare,
                       const std::function<void()>& check) {
        SCOPED_TRACE("operation " + std::to_string(operation) + ", the " + std::to_string(nth) + ".");
        for (const CURI& file : m_memory->listFiles())
            m_memory->deleteFile(file, false);
        prepare();
        const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
        faults->addRule(
            {.operation = operation, .kind = GetParam().kind, .nth = nth, .always = GetParam().always});
        m_files = faults;
        bool failed = false;
        try {
            create(GetParam().options);
        } catch (const CError&) {
            failed = true;
        }
        m_files = m_memory;
        const bool reported = !takeLog().empty();
        if (faults->getHits() == 0)
            return false;
        // What failed once to be read, or to be locked, may be tried again.
        const bool mayGoUnseen =
            !GetParam().always && (operation == FaultRule::Read || operation == FaultRule::Lock);
        EXPECT_TRUE(failed || reported || mayGoUnseen);
        if (failed)
            check();
        return true;
    }
};

bool isAllZero(const Bytes& bytes) {
    return isZeroMemory(bytes.data(), bytes.size());
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskCreateFaultsTest, ::testing::ValuesIn(faultRows()), nameOf);

TEST_P(CVMDKDiskCreateFaultsTest, LeaveNoDiskOrAnEmptyOneBehind) {
    failEveryOperation([] {},
                       [&] {
                           EXPECT_TRUE(isAllZero(readable()));
                           if (!GetParam().always) // else the half-written extent cannot be removed either
                               expectWholeExtents();
                           EXPECT_NO_THROW(create(GetParam().options)); // nobody is kept out
                       });
}

TEST_P(CVMDKDiskCreateFaultsTest, NeverMixAnOlderDiskIntoTheNewOne) {
    // The older disk is cut into larger extents, in which the new one's would have their place.
    DiskOptions old = GetParam().options;
    if (old.limit > 0)
        old.limit += old.compressed ? 2 * MiB : 1 * MiB;
    Bytes sectors = zeroBytes(128 * 512);
    const auto writeOld = [&] {
        const P<CVMDKDisk> disk = create(old);
        for (const int grain : {0, 40, 47, 48, 63, 64, 95, 96, 127}) { // about the ends of all extents
            const Bytes sector = randomBytes(static_cast<unsigned>(grain), 512);
            std::copy(sector.begin(), sector.end(), sectors.begin() + grain * 512);
            writeAt(*disk, grain * grainBytes, sector);
        }
    };
    failEveryOperation(writeOld, [&] {
        const Bytes left = readable();
        EXPECT_TRUE(isAllZero(left) || std::equal(left.begin(), left.end(), sectors.begin()));
    });
}
