// A compressed disk that is rewritten at random, against a row of bytes and an account of every slot.

#include "DiskTest.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int64 diskSize = 64 * MiB;
constexpr int64 largestWrite = 300 * KiB;
constexpr int64 trailSize = 3 * 512;

/// The full number takes minutes where memory is watched; there are fewer writes there, of the same kinds.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool isWatched = true;
#elif defined(__has_feature)
constexpr bool isWatched = __has_feature(address_sanitizer);
#else
constexpr bool isWatched = false;
#endif
constexpr int writeCount = isWatched ? 2000 : 10000;

class CVMDKDiskRewriteModelTest : public DiskTest, public ::testing::WithParamInterface<int> {
protected:
    struct USlot {
        int64 position = 0;
        int64 size = 0;
    };

    void SetUp() override {
        m_random.seed(static_cast<unsigned>(815 + GetParam()));
        m_noise = randomBytes(7, 1 * MiB);
        m_worstCaseSlotSize = CVMDKDataPreparer(128, true, GetParam()).getWorstCaseGrainSizeSectors();
    }

    int64 draw(int64 limit) { return static_cast<int64>(m_random() % static_cast<uint64>(limit)); }

    P<CVMDKDisk> openAtLevel(IIOStream::Access access) {
        return new CVMDKDisk(files(), uri("disk.vmdk"), access, "", GetParam(), nullptr, nullptr);
    }

    /// Zeros, one byte, noise, or both by turns.
    Bytes drawData() {
        Bytes data(static_cast<std::size_t>(1 + draw(largestWrite)));
        const int64 kind = draw(5);
        if (kind == 1)
            std::fill(data.begin(), data.end(), static_cast<unsigned char>(1 + draw(255)));
        if (kind < 2)
            return data;
        std::copy_n(m_noise.begin() + draw(1 * MiB - largestWrite), data.size(), data.begin());
        for (std::size_t i = 0; kind == 3 && i < data.size(); ++i)
            data[i] = i / 64 % 2 == 0 ? data[i] : 'x';
        return data;
    }

    void writeSomething(CVMDKDisk& disk) {
        const Bytes data = drawData();
        const int64 position = draw(diskSize - static_cast<int64>(data.size()) + 1);
        writeAt(disk, position, data);
        std::copy(data.begin(), data.end(), m_model.begin() + position);
        for (int64 grain = position / grainBytes;
             grain <= (position + static_cast<int64>(data.size()) - 1) / grainBytes; ++grain) {
            const auto start = m_model.begin() + grain * grainBytes;
            if (std::any_of(start, start + grainBytes, [](unsigned char byte) { return byte != 0; }))
                m_isStored[static_cast<std::size_t>(grain)] = true;
        }
        m_lastPosition = position;
        m_lastSize = static_cast<int64>(data.size());
    }

    /// Whatever the file has grown by is explained, to the byte.
    void expectAccount(CVMDKDisk& disk) {
        const P<CVMDKSpaceInfo> info = disk.gatherSpaceInfo(); // flushes
        const P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
            openVMDKFileStream(m_memory.get(), uri("disk.vmdk"), forReading).get(), forReading, 0, -1,
            P<CVMDKGrainTableCache>(new CVMDKGrainTableCache).get(), nullptr, nullptr, nullptr,
            TCryptBuffer<unsigned char>(), TBuffer<unsigned char>()));
        int64 payload = 0;
        int64 payloadInFile = 0;
        for (std::size_t grain = 0; grain < m_slots.size(); ++grain) {
            USlot slot;
            extent->getGrainDirectory().getGrainInfo(static_cast<int64>(grain), slot.position, slot.size);
            ASSERT_EQ(slot.position != 0, m_isStored[grain]) << "grain " << grain;
            payload += slot.position != 0 ? grainBytes : 0;
            payloadInFile += slot.size * 512;
            USlot& known = m_slots[grain];
            if (slot.position == known.position) {
                ASSERT_EQ(slot.size, known.size) << "grain " << grain;
                continue;
            }
            if (known.position != 0) {
                ASSERT_EQ(slot.size, m_worstCaseSlotSize) << "a grain that moves takes a slot for good";
                m_deadSize += known.size * 512;
                ++m_moves;
            }
            known = slot;
        }
        ASSERT_EQ(info->getPayloadSize(), payload);
        ASSERT_EQ(info->getPayloadSizeInFile(), payloadInFile);
        ASSERT_EQ(info->getDeadSpaceSize(), m_deadSize + trailSize);
        ASSERT_EQ(m_memory->openFile(uri("disk.vmdk"), forReading)->getLength(),
                  info->getHeaderSize() + payloadInFile + m_deadSize + trailSize);
    }

    void expectContents(CVMDKDisk& disk, int64 position, int64 size) {
        const Bytes found = readAt(disk, position, size);
        ASSERT_TRUE(std::equal(found.begin(), found.end(), m_model.begin() + position))
            << "from " << position << " on, " << size << " bytes";
    }
    void expectAllContents(CVMDKDisk& disk) {
        for (int64 position = 0; position < diskSize; position += MiB)
            ASSERT_NO_FATAL_FAILURE(expectContents(disk, position, MiB));
    }

    std::mt19937_64 m_random;
    Bytes m_noise;
    Bytes m_model = zeroBytes(diskSize);
    std::vector<bool> m_isStored = std::vector<bool>(diskSize / grainBytes);
    std::vector<USlot> m_slots = std::vector<USlot>(diskSize / grainBytes);
    int64 m_lastPosition = 0;
    int64 m_lastSize = 0;
    int64 m_deadSize = 0;
    int64 m_worstCaseSlotSize = 0;
    int m_moves = 0;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Levels, CVMDKDiskRewriteModelTest, ::testing::Values(0, 1, 6, 9),
                         [](const auto& level) { return "Level" + std::to_string(level.param); });

TEST_P(CVMDKDiskRewriteModelTest, EveryByteReadsBackAndEveryByteOfGrowthIsExplained) {
    P<CVMDKDisk> disk = create({.size = diskSize, .compressed = true, .level = GetParam()});
    ASSERT_EQ(disk->getSizeBytes(), diskSize);
    for (int i = 1; i <= writeCount; ++i) {
        SCOPED_TRACE(::testing::Message() << "write " << i);
        ASSERT_NO_FATAL_FAILURE(writeSomething(*disk));
        ASSERT_NO_FATAL_FAILURE(expectAccount(*disk));
        if (i % 10 == 0) {
            ASSERT_NO_FATAL_FAILURE(expectContents(*disk, m_lastPosition, m_lastSize));
        }
        if (i == writeCount / 2) {
            ASSERT_NO_FATAL_FAILURE(expectAllContents(*disk));
            disk = nullptr;
            disk = openAtLevel(forWriting);
            ASSERT_NO_FATAL_FAILURE(expectAllContents(*disk));
        }
    }
    if (GetParam() != 0) {
        EXPECT_GT(m_moves, 100);
    }
    ASSERT_NO_FATAL_FAILURE(expectAllContents(*disk));
    disk = nullptr;
    disk = openAtLevel(forReading);
    expectAllContents(*disk);
}
