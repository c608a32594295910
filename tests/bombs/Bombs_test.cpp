#include "CBombFile.h"
#include "CMemoryLimit.h"
#include "CTemporaryFolder.h"
#include "System.h"
#include "lum/CError.h"
#include "lum/CNativeFileSystem.h"
#include "lum/Logging.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKDisk.h"
#include "tessel/CVMDKDiskChecker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <random>

namespace tessel::test {
namespace {

using namespace lum;

constexpr int64 KiB = 1024;
constexpr int64 MiB = 1024 * KiB;
constexpr int64 GiB = 1024 * MiB;
constexpr int64 TiB = 1024 * GiB;
constexpr int64 sector = 512;

/// Above the size of the file; the cache of grain tables comes on top.
constexpr int64 allowance = 16 * MiB;
constexpr int64 cachedTables = 64;
constexpr int64 cacheBound = cachedTables * 4096 * 6 + 64 * KiB;
/// Only against hanging.
constexpr std::chrono::seconds mostTime(300);

/// What is done with a bomb, and told of it: the first error of each step, or what it found.
struct UOutcome {
    std::string opening;
    std::string reading;
    std::string checking;
    int64 findings = 0;
};

/// Only counts.
class CCountingReport : public CBase, public IVMDKCheckReport {
public:
    void addFinding(const UVMDKCheckFinding&) override { ++count; }
    void onProgress(int64) override {}

    int64 count = 0;
};

/// Takes what is logged and keeps nothing.
class CSilence {
public:
    CSilence() : m_previous(setLogSink(new CSink)) {}
    ~CSilence() { setLogSink(m_previous.get()); }
    CSilence(const CSilence&) = delete;
    CSilence& operator=(const CSilence&) = delete;

private:
    class CSink : public CBase, public ILogSink {
    public:
        void log(Level, const String&, const std::exception*, const String&) override {}
    };

    P<ILogSink> m_previous;
};

void use(std::string& outcome, const std::function<void()>& step) {
    try {
        step();
    } catch (const CError& error) {
        if (outcome.empty())
            outcome = error.what();
    } catch (const std::bad_alloc&) {
        outcome = "out of memory";
    }
}

void useDisk(const CURI& uri, IIOStream::Access access, UOutcome& outcome) {
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(cachedTables));
    P<CVMDKDisk> disk;
    use(outcome.opening,
        [&] { disk = new CVMDKDisk(files.get(), uri, access, "", 6, cache.get(), nullptr); });
    if (!disk)
        return;
    unsigned char buffer[4096];
    const int64 size = disk->getSizeBytes();
    for (const int64 position : {int64{0}, int64{65536}, size / 3, size / 2, size - int64{4096}})
        use(outcome.reading, [&] {
            disk->seek(std::max<int64>(position, 0) / 4096 * 4096);
            disk->read(buffer, 4096);
        });
    use(outcome.reading, [&] { disk->findGrainRun(0); });
    use(outcome.reading, [&] { disk->gatherSpaceInfo(); });
}

void checkDisk(const CURI& uri, bool quick, UOutcome& outcome) {
    const P<IFileSystem> files(new CNativeFileSystem(false));
    CCountingReport report;
    use(outcome.checking, [&] { CVMDKDiskChecker(files.get(), uri).check("", quick, report); });
    outcome.findings = std::max(outcome.findings, report.count);
}

class CBombFolder {
public:
    std::filesystem::path path(const char* name = "disk.vmdk") const { return m_folder.getPath(name); }
    CURI uri() const { return m_folder.getURI("disk.vmdk"); }

    /// An embedded descriptor and a header.
    CBombFile extent(const UBombHeader& header, const std::string& createType = "monolithicSparse") const {
        CBombFile file(path());
        file.putHeader(header);
        file.put(sector, describeSingle(std::min(header.capacity, uint64{1} << 53), createType));
        return file;
    }
    /// Only a descriptor, in an area of that many bytes.
    void text(const std::string& descriptor, int64 size = 0) const {
        CBombFile file(path());
        file.put(0, descriptor);
        file.setLength(std::max(size, static_cast<int64>(descriptor.size())));
    }
    /// A disk of this library, compressed, with some grains.
    CBombFile compressedDisk() const {
        const P<IFileSystem> files(new CNativeFileSystem(false));
        const P<CVMDKDisk> disk =
            CVMDKDisk::create(files.get(), uri(), 8 * MiB, "", true, 6, -1, "", 0xFFFFFFFF, false);
        std::mt19937 random(1);
        std::string grain(65536, '\0');
        for (char& c : grain)
            c = static_cast<char>(random());
        for (int i = 0; i < 3; ++i)
            disk->write(grain.data(), static_cast<int>(grain.size()));
        return CBombFile(path());
    }
    uint32 get32(int64 position) const {
        std::ifstream file(path(), std::ios::binary);
        file.seekg(position);
        unsigned char b[4] = {};
        file.read(reinterpret_cast<char*>(b), 4);
        return b[0] | uint32{b[1]} << 8 | uint32{b[2]} << 16 | uint32{b[3]} << 24;
    }
    int64 firstTable() const { return get32(int64{get32(56)} * sector) * sector; }
    int64 firstSlot() const { return get32(firstTable()) * sector; }

    /// The bytes that the files take, without their holes.
    int64 measure() const {
        int64 total = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.getPath()))
            total += getStoredSize(entry.path());
        return total;
    }

private:
    CTemporaryFolder m_folder;
};

struct UBomb {
    const char* name;
    std::function<void(CBombFolder&)> build;
    /// What opening says; empty when the disk opens.
    const char* opening;
    /// Bytes that this one may take above what the others may; only descriptors have such a bound.
    int64 extra = 0;
};

void PrintTo(const UBomb& bomb, std::ostream* out) {
    *out << bomb.name;
}

std::string repeat(const std::string& text, int64 count) {
    std::string result;
    result.reserve(text.size() * static_cast<std::size_t>(count));
    for (int64 i = 0; i < count; ++i)
        result += text;
    return result;
}

std::string numberedExtents(int count, std::size_t nameSize) {
    std::string lines;
    for (int i = 0; i < count; ++i) {
        std::string name = std::to_string(1000000 + i);
        name = std::string(nameSize - std::min(nameSize, name.size()), 'x') + name;
        lines += "RW 128 SPARSE \"" + name + "\"\n";
    }
    return lines;
}

/// A file of holes that claims to hold the longest directory.
UBombHeader hugeDirectory() {
    UBombHeader header;
    header.capacity = ((uint64{1} << 29) - 1024) * 65536;
    return header;
}

std::string deflatedZeros(std::size_t size) {
    const std::string zeros(size, '\0');
    std::string result(::compressBound(static_cast<uLong>(size)), '\0');
    uLongf length = static_cast<uLongf>(result.size());
    ::compress2(reinterpret_cast<Bytef*>(result.data()), &length,
                reinterpret_cast<const Bytef*>(zeros.data()), static_cast<uLong>(size), 9);
    result.resize(length);
    return result;
}

void makeChild(const std::filesystem::path& path, const char* parent) {
    CBombFile file(path);
    file.putHeader({});
    std::string text = describeSingle(65536);
    const std::string name = path.filename().string();
    text.replace(text.find("ffffffff"), 8, "12345678");
    text.replace(text.find("disk.vmdk"), 9, name);
    file.put(sector, text + "parentFileNameHint=\"" + parent + "\"\n");
    file.setLength(64 * sector);
}

const UBomb bombs[] = {
    {"CapacityOfTwoToThe63",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.capacity = uint64{1} << 63;
         folder.extent(header).setLength(MiB);
     },
     "invalid capacity"},
    {"CapacityOfTwoToThe32Tables",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.capacity = (uint64{1} << 32) * 65536;
         folder.extent(header).setLength(MiB);
     },
     "invalid capacity"},
    {"CapacityOfTwoToThe32TablesInHoles",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.capacity = (uint64{1} << 32) * 65536;
         folder.extent(header).setLength(TiB);
     },
     "invalid capacity"},
    {"DirectoryOfTwoGiBInHoles", [](CBombFolder& folder) { folder.extent(hugeDirectory()).setLength(TiB); },
     ""},
    {"TwoDirectoriesOfTwoGiBInHoles",
     [](CBombFolder& folder) {
         UBombHeader header = hugeDirectory();
         header.flags |= UBombHeader::redundant;
         header.redundantDirectory = uint64{8 * GiB} / sector;
         folder.extent(header).setLength(TiB);
     },
     ""},
    {"ThreeDirectoriesOfTwoGiBInHoles",
     [](CBombFolder& folder) {
         UBombHeader header = hugeDirectory();
         header.flags = UBombHeader::compressed | UBombHeader::redundant;
         header.redundantDirectory = uint64{8 * GiB} / sector;
         header.overhead = uint64{1} << 32;
         CBombFile file = folder.extent(header, "streamOptimized");
         const auto last = static_cast<int64>((uint64{1} << 29) - 1025);
         file.put32(int64{32} * sector + 4 * last, 24 * MiB); // the last table: behind it the marker
         const int64 marker = (int64{24} * MiB + 4) * sector;
         file.put(marker,
                  littleEndian((uint64{1} << 22) - 8, 8) + littleEndian(0, 4) + littleEndian(0x18349002, 4));
         file.setLength(TiB);
     },
     ""},
    {"OverlappingDirectories",
     [](CBombFolder& folder) {
         UBombHeader header = hugeDirectory();
         header.flags |= UBombHeader::redundant;
         header.redundantDirectory = header.directory + 1;
         folder.extent(header).setLength(TiB);
     },
     "overlap"},
    {"LineFeedsOnly", [](CBombFolder& folder) { folder.text(std::string(5 * MiB, '\n')); }, "too many lines"},
    {"EmbeddedLineFeedsOnly",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.descriptorSize = uint64{5 * MiB} / sector;
         header.directory = header.descriptorSize + 8;
         CBombFile file(folder.path());
         file.putHeader(header);
         file.put(sector, std::string(5 * MiB, '\n'));
         file.setLength(6 * MiB);
     },
     "too many lines"},
    {"SettingsOnly", [](CBombFolder& folder) { folder.text(repeat("a=b\n", 5 * MiB / 4)); },
     "too many lines"},
    {"AsManySettingsAsAreAllowed", [](CBombFolder& folder) { folder.text(repeat("a=b\n", 131072)); },
     "'createType' not found"},
    {"AsManyLongSettingsAsAreAllowed",
     [](CBombFolder& folder) { folder.text(repeat(std::string(32, 'a') + "=bcdef\n", 131072)); },
     "'createType' not found", 8 * MiB},
    {"AsManyLongSettingsInLatin1AsAreAllowed",
     [](CBombFolder& folder) {
         folder.text("encoding=latin1\n" + repeat(std::string(32, '\xE4') + "=bcdef\n", 131071));
     },
     "'createType' not found", 12 * MiB},
    {"OneLineOfFiveMiB", [](CBombFolder& folder) { folder.text(std::string(5 * MiB, 'a')); },
     "'createType' not found", 40 * MiB},
    {"ManyExtentLines",
     [](CBombFolder& folder) {
         folder.text(describeDisk("twoGbMaxExtentSparse", numberedExtents(100000, 15)));
     },
     "too many extents: 100000 (allowed: 65536)"},
    {"ManyExtentLinesInFiveMiB",
     [](CBombFolder& folder) {
         folder.text(describeDisk("twoGbMaxExtentSparse", numberedExtents(100000, 15)), 5 * MiB);
     },
     "too many extents: 100000 (allowed: 65536)"},
    {"AsManyExtentLinesAsAreAllowed",
     [](CBombFolder& folder) {
         folder.text(describeDisk("twoGbMaxExtentSparse", numberedExtents(65536, 15)));
     },
     "No such file", 48 * MiB},
    {"AsManyLongExtentLinesAsAreAllowed",
     [](CBombFolder& folder) {
         folder.text(describeDisk("twoGbMaxExtentSparse", numberedExtents(65536, 60)));
     },
     "No such file", 64 * MiB},
    {"DescriptorInHoles",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.descriptorPosition = uint64{GiB} / sector;
         header.descriptorSize = uint64{5 * MiB} / sector;
         folder.extent(header).setLength(2 * GiB);
     },
     "'createType' not found"},
    {"CompressedSizeOfFourGiB",
     [](CBombFolder& folder) {
         CBombFile file = folder.compressedDisk();
         file.put32(folder.firstSlot() + 8, 0xFFFFFFFF);
     },
     ""},
    {"StreamThatSwellsPastAGrain",
     [](CBombFolder& folder) {
         CBombFile file = folder.compressedDisk();
         const std::string bomb = deflatedZeros(32 * MiB);
         file.put32(folder.firstSlot() + 8, static_cast<uint32>(bomb.size()));
         file.put(folder.firstSlot() + 12, bomb);
     },
     ""},
    {"RecordsOfThirtyTwoMiBThatAreNotThere",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.flags = UBombHeader::compressed;
         header.grainSize = 32768;
         header.capacity = 32768 * 16;
         CBombFile file = folder.extent(header, "streamOptimized");
         file.put32(32 * sector, 33);
         file.put(37 * sector, littleEndian(1, 8) + littleEndian(0, 4) + littleEndian(0x18349002, 4));
         file.put32(38 * sector, 39);
         file.fill32(33 * sector, 16, 64);
         file.put(39 * sector, repeat(littleEndian(1, 2), 16));
         file.put(64 * sector, littleEndian(0, 8) + littleEndian(32 * MiB, 4));
         file.setLength(70 * sector);
     },
     ""},
    {"SlotSizesOf65535",
     [](CBombFolder& folder) {
         CBombFile file = folder.compressedDisk();
         const int64 marker = folder.firstTable() + 4 * sector;
         const int64 sizes = folder.get32(marker + sector) * sector;
         file.put(sizes, repeat("\xFF\xFF", 512));
     },
     ""},
    {"EntriesThatPointAtTheHeader",
     [](CBombFolder& folder) {
         CBombFile file = folder.extent({});
         file.put32(32 * sector, 40);
         file.fill32(40 * sector, 512, 0xFFFFFFFF);
         file.put32(40 * sector, 1);
         file.setLength(MiB);
     },
     ""},
    {"EntriesThatPointAtEachOther",
     [](CBombFolder& folder) {
         CBombFile file = folder.extent({});
         file.put32(32 * sector, 40);
         file.fill32(40 * sector, 512, 128);
         file.setLength(MiB);
     },
     ""},
    {"DirectoryThatPointsAtItself",
     [](CBombFolder& folder) {
         CBombFile file = folder.extent({});
         file.fill32(32 * sector, 128, 32);
         file.setLength(MiB);
     },
     ""},
    {"DirectoryThatPointsAtTheHeader",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.flags |= UBombHeader::redundant;
         header.redundantDirectory = 50;
         CBombFile file = folder.extent(header);
         file.fill32(32 * sector, 128, 0xFFFFFFFF);
         file.fill32(50 * sector, 128, 1);
         file.setLength(MiB);
     },
     ""},
    {"TablesOf4096EntriesThatAreAllTheSame",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.entriesPerTable = 4096;
         header.directory = 128;
         header.capacity = uint64{8192} * 4096 * 128;
         header.overhead = 2048;
         CBombFile file = folder.extent(header);
         file.fill32(128 * sector, 8192, 1536);
         file.fill32(1536 * sector, 4096, 0xFFFFFFF0);
         file.setLength(MiB);
     },
     ""},
    {"TablesThatAreHoles",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.entriesPerTable = 4096;
         header.directory = 128;
         header.capacity = uint64{16384} * 4096 * 128;
         CBombFile file = folder.extent(header);
         for (int i = 0; i < 16384; ++i)
             file.put32(128 * sector + 4 * i, 1024 + 120000U * static_cast<uint32>(i));
         file.setLength(TiB);
     },
     ""},
    {"GrainsOf16MiBInHoles",
     [](CBombFolder& folder) {
         UBombHeader header;
         header.grainSize = 32768;
         header.capacity = 32768 * 32;
         CBombFile file = folder.extent(header);
         file.put32(32 * sector, 40);
         for (int i = 0; i < 32; ++i)
             file.put32(40 * sector + 4 * i, 32768U * static_cast<uint32>(i + 1));
         file.setLength(TiB);
     },
     ""},
    {"ParentThatIsItself", [](CBombFolder& folder) { makeChild(folder.path(), "disk.vmdk"); }, ""},
    {"ParentsThatLoop",
     [](CBombFolder& folder) {
         makeChild(folder.path(), "a.vmdk");
         makeChild(folder.path("a.vmdk"), "b.vmdk");
         makeChild(folder.path("b.vmdk"), "disk.vmdk");
     },
     ""},
    {"ThreeHundredParents",
     [](CBombFolder& folder) {
         makeChild(folder.path(), "p0.vmdk");
         for (int i = 0; i < 300; ++i)
             makeChild(folder.path(("p" + std::to_string(i) + ".vmdk").c_str()),
                       ("p" + std::to_string(i + 1) + ".vmdk").c_str());
     },
     ""},
};

class BombsTest : public ::testing::TestWithParam<UBomb> {};

} // namespace

TEST_P(BombsTest, TakeNoMoreMemoryThanTheirFilesAndALittle) {
    const UBomb& bomb = GetParam();
    CBombFolder folder;
    bomb.build(folder);
    const CSilence silence;
    const int64 size = folder.measure();
    const int64 most = size + allowance + cacheBound + bomb.extra;
    const auto start = std::chrono::steady_clock::now();
    UOutcome outcomes[4];
    int64 peaks[4] = {};
    int i = 0;
    const auto step = [&](const std::function<void(UOutcome&)>& what) {
        const CMemoryLimit limit(most);
        what(outcomes[i]);
        peaks[i] = limit.getPeak();
        EXPECT_FALSE(limit.wasExceeded()) << "step " << i << ": " << outcomes[i].opening << " / "
                                          << outcomes[i].reading << " / " << outcomes[i].checking;
        ++i;
    };
    step([&](UOutcome& outcome) { useDisk(folder.uri(), IIOStream::Access_Read, outcome); });
    step([&](UOutcome& outcome) { checkDisk(folder.uri(), true, outcome); });
    step([&](UOutcome& outcome) { checkDisk(folder.uri(), false, outcome); });
    step([&](UOutcome& outcome) { useDisk(folder.uri(), IIOStream::Access_ReadWrite, outcome); });
    const auto time = std::chrono::steady_clock::now() - start;
    std::printf("%s: %lld KiB of files; at most %lld KiB reading, %lld KiB checking, %lld KiB writing; "
                "%lld ms\n  opening: %s\n  reading: %s\n  checking: %lld findings, %s\n",
                bomb.name, static_cast<long long>(size / KiB), static_cast<long long>(peaks[0] / KiB),
                static_cast<long long>(std::max(peaks[1], peaks[2]) / KiB),
                static_cast<long long>(peaks[3] / KiB),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count()),
                outcomes[0].opening.c_str(), outcomes[0].reading.c_str(),
                static_cast<long long>(outcomes[2].findings), outcomes[2].checking.c_str());
    EXPECT_LT(time, mostTime);
    if (std::string(bomb.opening).empty())
        EXPECT_EQ(outcomes[0].opening, "");
    else
        EXPECT_THAT(outcomes[0].opening, ::testing::HasSubstr(bomb.opening));
}

// A directory that is read in parts leads to the same tables as one that is in memory.
TEST(LongDirectoryTest, LeadsToTablesInAllItsParts) {
    CBombFolder folder;
    UBombHeader header;
    header.directory = 128;
    header.capacity = uint64{1000000} * 65536;
    header.overhead = 16384;
    const int64 tables[] = {0, 16383, 16384, 300000, 999999};
    {
        CBombFile file = folder.extent(header);
        int64 i = 0;
        for (const int64 table : tables) {
            const int64 tableSector = 10000 + 4 * i;
            const int64 slot = 16384 + 128 * i;
            file.put32(128 * sector + 4 * table, static_cast<uint32>(tableSector));
            file.put32(tableSector * sector + 4 * 7, static_cast<uint32>(slot));
            file.put(slot * sector, std::string(65536, static_cast<char>('a' + i)));
            ++i;
        }
    }
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const auto open = [&](IIOStream::Access access) {
        return P<CVMDKDisk>(new CVMDKDisk(files.get(), folder.uri(), access, "", 6, nullptr, nullptr));
    };
    const int64 tableBytes = 512 * 65536;
    const auto readGrain = [&](CVMDKDisk& disk, int64 table, int64 grain) {
        char c = '?';
        disk.seek(table * tableBytes + grain * 65536 + 99);
        disk.read(&c, 1);
        return c;
    };
    {
        const P<CVMDKDisk> disk = open(IIOStream::Access_Read);
        for (int i = 4; i >= 0; --i)
            EXPECT_EQ(readGrain(*disk, tables[i], 7), static_cast<char>('a' + i));
        EXPECT_EQ(readGrain(*disk, 5000, 7), 0);
        EXPECT_EQ(readGrain(*disk, 300000, 8), 0);
        EXPECT_EQ(disk->gatherSpaceInfo()->getPayloadSize(), 5 * 65536);
        const UVMDKGrainRun run = disk->findGrainRun(tableBytes);
        EXPECT_EQ(run.layer, UVMDKGrainRun::nowhere);
        EXPECT_EQ(run.sizeBytes, (16383 - 1) * tableBytes) << "up to the next table that is there";
    }
    {
        const P<CVMDKDisk> disk = open(IIOStream::Access_ReadWrite);
        disk->seek(300000 * tableBytes + 20 * 65536 + 99);
        disk->write("z", 1);
        EXPECT_EQ(readGrain(*disk, 0, 7), 'a');
        EXPECT_EQ(readGrain(*disk, 300000, 20), 'z') << "a slot behind the end that the file had";
        disk->seek(20000 * tableBytes);
        EXPECT_THROW(disk->write("z", 1), CError) << "there is no table";
    }
    EXPECT_EQ(readGrain(*open(IIOStream::Access_Read), 300000, 20), 'z');
}

INSTANTIATE_TEST_SUITE_P(All, BombsTest, ::testing::ValuesIn(bombs),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace tessel::test
