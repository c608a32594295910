// The layout of a new extent file, sector by sector.

#include "tessel/VMDKEmptyExtentFile.h"

#include "Bytes.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace tessel::test {
namespace {

const CURI uri(String("memory:/disks/new.vmdk"));

struct UShape {
    bool compressed;
    int64 grainCount;
    int64 grainSizeSectors;
    /// Sectors of the descriptor's area; 0: no descriptor.
    int64 descriptorSectors;
    int keyHashSize = 0;
    int64 zerosSize = 20 * 512; // enough to fill up the descriptor's area
};

void PrintTo(const UShape& shape, std::ostream* out) {
    *out << (shape.compressed ? "compressed, " : "plain, ") << shape.grainCount << " grains of "
         << shape.grainSizeSectors << " sectors, descriptor " << shape.descriptorSectors << ", key hash "
         << shape.keyHashSize << ", zeros " << shape.zerosSize;
}

P<CVMDKDescriptor> makeDescriptor() {
    const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    descriptor->setVersion(1);
    descriptor->setContentID(0x12345678);
    return descriptor;
}

/// Puts a file together from its description, without any of the library's help.
class CExpectedFile {
public:
    explicit CExpectedFile(const UShape& shape) : m_shape(shape) {
        const int64 tables = (shape.grainCount + 511) / 512;
        m_tableCount = tables;
        m_directorySectors = (tables * 4 + 511) / 512;
        m_file.resize(512);
        if (shape.descriptorSectors > 0) {
            m_descriptorOffset = getSector();
            for (const char c : std::string("version=1\nCID=12345678\nencoding=\"UTF-8\"\n"))
                m_file.push_back(static_cast<unsigned char>(c));
            m_file.resize(static_cast<std::size_t>((1 + shape.descriptorSectors) * 512));
        }
        m_redundantDirectory = addDirectory();
        m_directory = addDirectory();
        if (shape.compressed)
            addSlotSizes();
        while (getSector() % shape.grainSizeSectors != 0)
            addZeros(1);
        m_overhead = getSector();
        if (shape.compressed) {
            addMarker(1, 3);
            addHeader();
            addMarker(0, 0);
        }
        const std::vector<unsigned char> header = makeHeader();
        std::copy(header.begin(), header.end(), m_file.begin());
    }

    Bytes getBytes() const { return Bytes(m_file.data(), static_cast<int64>(m_file.size())); }

private:
    int64 getSector() const { return static_cast<int64>(m_file.size()) / 512; }
    void addZeros(int64 sectors) { m_file.resize(m_file.size() + static_cast<std::size_t>(sectors * 512)); }
    static void add(std::vector<unsigned char>& bytes, uint64 value, int width) {
        for (int i = 0; i < width; ++i)
            bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
    void addMarker(int64 value, uint32 type) {
        add(m_file, static_cast<uint64>(value), 8);
        add(m_file, 0, 4);
        add(m_file, type, 4);
        m_file.resize(m_file.size() + 496);
    }
    void padToSector() { m_file.resize((m_file.size() + 511) / 512 * 512); }

    int64 addDirectory() {
        if (m_shape.compressed)
            addMarker(m_directorySectors, 2);
        const int64 start = getSector();
        const int64 stride = m_shape.compressed ? 5 : 4;
        for (int64 i = 0; i < m_tableCount; ++i)
            add(m_file,
                static_cast<uint64>(start + m_directorySectors + stride * i + (m_shape.compressed ? 1 : 0)),
                4);
        padToSector();
        for (int64 i = 0; i < m_tableCount; ++i) {
            if (m_shape.compressed)
                addMarker(4, 1);
            addZeros(4);
        }
        return start;
    }
    void addSlotSizes() {
        addMarker(m_directorySectors, 0x18349002);
        const int64 first = getSector() + m_directorySectors;
        for (int64 i = 0; i < m_tableCount; ++i)
            add(m_file, static_cast<uint64>(first + 3 * i + 1), 4);
        padToSector();
        for (int64 i = 0; i < m_tableCount; ++i) {
            addMarker(2, 0x18349001);
            addZeros(2);
        }
    }

    std::vector<unsigned char> makeHeader() const {
        std::vector<unsigned char> header;
        add(header, m_shape.keyHashSize > 0 ? 0x05644B45 : 0x564D444B, 4);
        add(header, m_shape.compressed ? 3 : 1, 4);
        add(header, m_shape.compressed ? 0x30003 : 0x3, 4);
        add(header, static_cast<uint64>(m_shape.grainCount * m_shape.grainSizeSectors), 8);
        add(header, static_cast<uint64>(m_shape.grainSizeSectors), 8);
        add(header, static_cast<uint64>(m_descriptorOffset), 8);
        add(header, static_cast<uint64>(m_shape.descriptorSectors), 8);
        add(header, 512, 4);
        add(header, static_cast<uint64>(m_redundantDirectory), 8);
        add(header, static_cast<uint64>(m_directory), 8);
        add(header, static_cast<uint64>(m_overhead), 8);
        add(header, 0, 1);
        for (const unsigned char c : {0x0A, 0x20, 0x0D, 0x0A})
            header.push_back(c);
        add(header, m_shape.compressed ? 1 : 0, 2);
        if (m_shape.keyHashSize > 0) {
            add(header, 1, 2);
            add(header, 1, 2);
            add(header, static_cast<uint64>(m_shape.keyHashSize), 2);
            const Bytes hash = patternBytes(m_shape.keyHashSize);
            header.insert(header.end(), hash.getData(), hash.getData() + hash.getUsed());
        }
        header.resize(512);
        return header;
    }
    void addHeader() {
        const std::vector<unsigned char> header = makeHeader();
        m_file.insert(m_file.end(), header.begin(), header.end());
    }

    const UShape& m_shape;
    int64 m_tableCount;
    int64 m_directorySectors;
    int64 m_descriptorOffset = 0;
    int64 m_redundantDirectory = 0;
    int64 m_directory = 0;
    int64 m_overhead = 0;
    std::vector<unsigned char> m_file;
};

class VMDKEmptyExtentFileTest : public ::testing::TestWithParam<UShape> {
protected:
    void create(const UShape& shape) {
        const P<CVMDKDescriptor> descriptor = shape.descriptorSectors > 0 ? makeDescriptor() : nullptr;
        createEmptyVMDKSparseExtentFile(m_files.get(), uri, shape.compressed, shape.grainCount,
                                        shape.grainSizeSectors, Bytes(shape.zerosSize), descriptor.get(),
                                        shape.descriptorSectors, patternBytes(shape.keyHashSize));
    }

    Bytes load() const { return readAll(*m_files->openFile(uri, IIOStream::Access_Read)); }

    static uint64 numberAt(const Bytes& file, int64 position, int width) {
        uint64 value = 0;
        for (int i = width - 1; i >= 0; --i)
            value = value << 8 | file[position + i];
        return value;
    }
    static uint32 entryAt(const Bytes& file, int64 sector, int64 index) {
        return static_cast<uint32>(numberAt(file, sector * 512 + index * 4, 4));
    }
    static void expectMarker(const Bytes& file, int64 sector, uint64 value, uint32 type) {
        EXPECT_EQ(numberAt(file, sector * 512, 8), value) << "sector " << sector;
        EXPECT_EQ(numberAt(file, sector * 512 + 8, 4), 0U) << "sector " << sector;
        EXPECT_EQ(numberAt(file, sector * 512 + 12, 4), type) << "sector " << sector;
        EXPECT_EQ(slice(file, sector * 512 + 16, 496), Bytes(496)) << "sector " << sector;
    }

    P<CMemoryFileSystem> m_files{new CMemoryFileSystem};
};

// The number of tables: 1 for up to 512 grains, 2, 128 (one full sector of directory), 129.
const UShape shapes[] = {
    {false, 1, 128, 0},
    {true, 1, 128, 0},
    {false, 512, 128, 0},
    {true, 512, 128, 0},
    {false, 513, 128, 20},
    {true, 513, 128, 20},
    {false, 128 * 512, 8, 0},
    {true, 128 * 512, 8, 0},
    {false, 128 * 512, 8, 20},
    {true, 128 * 512, 8, 20},
    {false, 128 * 512 + 1, 8, 1},
    {true, 128 * 512 + 1, 8, 1},
    {false, 129 * 512, 1, 20},
    {true, 129 * 512, 1, 20},
    {false, 1, 1, 0},
    {true, 1, 1, 0},
    {false, 10, 32768, 0},
    {true, 10, 32768, 0}, // the padding is far longer than the zeros
    {false, 10, 3, 2},
    {true, 10, 7, 2}, // grain sizes that are no power of 2
    {false, 10, 8, 0, 32},
    {true, 10, 8, 20, 32},
    {false, 10, 8, 0, 427},
    {true, 1500, 16, 1, 0, 512},
    {false, 1500, 16, 1, 0, 777},
};

std::string nameOf(const ::testing::TestParamInfo<UShape>& info) {
    const UShape& shape = info.param;
    return std::string(shape.compressed ? "Compressed" : "Plain") + "Grains" +
           std::to_string(shape.grainCount) + "Of" + std::to_string(shape.grainSizeSectors) + "Descriptor" +
           std::to_string(shape.descriptorSectors) + "KeyHash" + std::to_string(shape.keyHashSize) + "Zeros" +
           std::to_string(shape.zerosSize);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Shapes, VMDKEmptyExtentFileTest, ::testing::ValuesIn(shapes), nameOf);

TEST_P(VMDKEmptyExtentFileTest, EverySectorIsAsDescribed) {
    create(GetParam());
    const Bytes file = load();
    const Bytes expected = CExpectedFile(GetParam()).getBytes();
    ASSERT_EQ(file.getUsed(), expected.getUsed());
    for (int64 sector = 0; sector < file.getUsed() / 512; ++sector)
        ASSERT_EQ(slice(file, sector * 512, 512), slice(expected, sector * 512, 512)) << "sector " << sector;
}

TEST_P(VMDKEmptyExtentFileTest, WhatStoodThereBeforeIsGone) {
    create(GetParam());
    const Bytes expected = load();
    {
        const P<IIOStream> stream = m_files->openFile(uri, IIOStream::Access_ReadWrite);
        Bytes old(expected.getUsed() + 100000);
        old.fill(0xEE);
        stream->write(old.getData(), static_cast<int>(old.getUsed()));
    }
    create(GetParam());
    EXPECT_EQ(load(), expected);
}

TEST_F(VMDKEmptyExtentFileTest, PlainExtentOf128GrainsWithoutDescriptor) {
    create({false, 128, 128, 0});
    const Bytes file = load();
    EXPECT_EQ(numberAt(file, 28, 8), 0U); // descriptor: offset, size
    EXPECT_EQ(numberAt(file, 36, 8), 0U);
    EXPECT_EQ(numberAt(file, 48, 8), 1U); // redundant directory
    EXPECT_EQ(entryAt(file, 1, 0), 2U);
    EXPECT_EQ(numberAt(file, 56, 8), 6U); // directory
    EXPECT_EQ(entryAt(file, 6, 0), 7U);
    EXPECT_EQ(numberAt(file, 64, 8), 128U); // overhead
    EXPECT_EQ(file.getUsed(), 65536);
}

TEST_F(VMDKEmptyExtentFileTest, CompressedExtentOfTwoTablesWithDescriptor) {
    create({true, 513, 128, 20});
    const Bytes file = load();
    EXPECT_EQ(numberAt(file, 28, 8), 1U);
    EXPECT_EQ(numberAt(file, 36, 8), 20U);
    expectMarker(file, 21, 1, 2);
    EXPECT_EQ(numberAt(file, 48, 8), 22U);
    EXPECT_EQ(entryAt(file, 22, 0), 24U);
    EXPECT_EQ(entryAt(file, 22, 1), 29U);
    EXPECT_EQ(entryAt(file, 22, 2), 0U);
    expectMarker(file, 23, 4, 1);
    expectMarker(file, 28, 4, 1);
    expectMarker(file, 33, 1, 2);
    EXPECT_EQ(numberAt(file, 56, 8), 34U);
    EXPECT_EQ(entryAt(file, 34, 0), 36U);
    EXPECT_EQ(entryAt(file, 34, 1), 41U);
    expectMarker(file, 35, 4, 1);
    expectMarker(file, 40, 4, 1);
    expectMarker(file, 45, 1, 0x18349002);
    EXPECT_EQ(entryAt(file, 46, 0), 48U);
    EXPECT_EQ(entryAt(file, 46, 1), 51U);
    expectMarker(file, 47, 2, 0x18349001);
    expectMarker(file, 50, 2, 0x18349001);
    EXPECT_EQ(slice(file, 53 * 512, (128 - 53) * 512), Bytes((128 - 53) * 512));
    EXPECT_EQ(numberAt(file, 64, 8), 128U);
    expectMarker(file, 128, 1, 3);
    EXPECT_EQ(slice(file, 129 * 512, 512), slice(file, 0, 512));
    expectMarker(file, 130, 0, 0);
    EXPECT_EQ(file.getUsed(), 131 * 512);
}

TEST_F(VMDKEmptyExtentFileTest, DirectoryOf129TablesTakesTwoSectors) {
    create({true, 128 * 512 + 1, 8, 0});
    const Bytes file = load();
    expectMarker(file, 1, 2, 2);
    EXPECT_EQ(numberAt(file, 48, 8), 2U);
    EXPECT_EQ(entryAt(file, 2, 0), 2U + 2 + 1); // the directory's sector, its sectors, the table's marker
    EXPECT_EQ(entryAt(file, 2, 128), 5U + 128 * 5);
    EXPECT_EQ(slice(file, 3 * 512 + 4, 508), Bytes(508));
    expectMarker(file, 4 + 129 * 5, 2, 2);
}

TEST_F(VMDKEmptyExtentFileTest, DirectoryOf128TablesFillsItsSector) {
    create({false, 128 * 512, 8, 0});
    const Bytes file = load();
    EXPECT_EQ(entryAt(file, 1, 127), 2U + 127 * 4);
    EXPECT_EQ(numberAt(file, 56, 8), 2U + 128 * 4);
}

TEST_F(VMDKEmptyExtentFileTest, KeyHashTurnsTheExtensionOn) {
    create({false, 10, 8, 0, 32});
    const Bytes file = load();
    EXPECT_EQ(numberAt(file, 0, 4), 0x05644B45U);
    EXPECT_EQ(slice(file, 85, 32), patternBytes(32));
}

TEST_F(VMDKEmptyExtentFileTest, RefusesArgumentsBeforeAFileIsMade) {
    struct URow {
        UShape shape;
        const char* message;
    };
    const URow rows[] = {
        {{false, 10, 0, 0}, "Invalid grain size in sectors: 0 (allowed: 1 to 32768)."},
        {{false, 10, 32769, 0}, "Invalid grain size in sectors: 32769 (allowed: 1 to 32768)."},
        {{false, -1, 8, 0}, "Invalid number of grains: -1 (allowed: 0 to 4294967296)."},
        {{false, (int64{1} << 32) + 1, 8, 0},
         "Invalid number of grains: 4294967297 (allowed: 0 to 4294967296)."},
        {{false, 10, 8, 4194304}, "Invalid descriptor size in sectors: 4194304 (allowed: 1 to 4194303)."},
        {{false, 10, 8, 0, 0, 511}, "The buffer of zeros is too small: 511 bytes (at least 512)."},
    };
    for (const URow& row : rows) {
        EXPECT_INVALID_ARG_ERROR(create(row.shape), "createEmptyVMDKSparseExtentFile", row.message);
        EXPECT_FALSE(m_files->fileExists(uri));
    }
}

TEST(VMDKEmptyExtentFileDescriptor, SizeOfTheAreaMeansNothingWithoutADescriptor) {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    const auto make = [&](int64 descriptorSectors) {
        const CURI other(String("memory:/disks/a.vmdk"));
        files->deleteFile(other, true);
        createEmptyVMDKSparseExtentFile(files.get(), other, true, 20, 8, Bytes(2048), nullptr,
                                        descriptorSectors, Bytes());
        return readAll(*files->openFile(other, IIOStream::Access_Read));
    };
    const Bytes expected = make(0);
    for (const int64 sectors : {int64{-1}, int64{20}, int64{1} << 40, INT64_MAX, INT64_MIN})
        EXPECT_EQ(make(sectors), expected) << sectors;
}

} // namespace tessel::test
