#include "CDiskWriter.h"

#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace tessel {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr int64 grainSize = 65536;
constexpr int64 diskSize = 128 * grainSize;

/// A child whose parent holds ones in its grains 1 and 2, of disks of either kind.
class CDiskWriterTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        const P<CVMDKDisk> parent = create("parent.vmdk", "", 0xFFFFFFFF);
        CDiskWriter(parent.get(), false).write(grainSize, Bytes(2 * grainSize, 1).data(), 2 * grainSize);
        parent->flushChanges();
        m_model.assign(diskSize, 0);
        std::fill_n(m_model.begin() + grainSize, 2 * grainSize, 1);
        m_child = create("child.vmdk", "parent.vmdk", parent->getDescriptor()->getContentID());
    }

    P<CVMDKDisk> create(const char* name, const char* parent, unsigned int parentID) {
        return CVMDKDisk::create(m_files.get(), uriOf(name), diskSize, "", GetParam(), -1, -1, parent,
                                 parentID, false);
    }
    static CURI uriOf(const char* name) { return CURI("file:///disks") << String(name); }

    /// Writes `size` times `value` into disk and model.
    void write(bool isNew, int64 position, int64 size, unsigned char value) {
        CDiskWriter(m_child.get(), isNew).write(position, Bytes(size, value).data(), size);
        std::fill_n(m_model.begin() + position, size, value);
    }
    void writeZeros(int64 position, int64 size) {
        CDiskWriter(m_child.get(), false).writeZeros(position, size);
        std::fill_n(m_model.begin() + position, size, static_cast<unsigned char>(0));
    }
    /// What the disk holds once it is opened anew.
    Bytes readAnew() {
        m_child->flushChanges();
        m_child = nullptr;
        m_child = new CVMDKDisk(m_files.get(), uriOf("child.vmdk"), IIOStream::Access_ReadWrite, "", -1,
                                nullptr, nullptr);
        Bytes bytes(diskSize);
        m_child->seek(0);
        m_child->read(bytes.data(), static_cast<int>(diskSize));
        return bytes;
    }
    bool isStoredHere(int64 grain) {
        m_child->seek(grain * grainSize);
        return m_child->isGrainWrittenAndIndependentOfParent();
    }

    P<IFileSystem> m_files = P<IFileSystem>(new CMemoryFileSystem);
    P<CVMDKDisk> m_child;
    Bytes m_model;
};

TEST_P(CDiskWriterTest, ZerosOverAParentsDataAreStored) {
    write(false, grainSize, grainSize, 0);
    EXPECT_EQ(m_model, readAnew());
    EXPECT_TRUE(isStoredHere(1));
}

TEST_P(CDiskWriterTest, ZerosThatCompleteAGrainOfZerosAreStored) {
    write(false, grainSize, 1000, 0);
    write(false, grainSize + 1000, grainSize - 1000, 0);
    EXPECT_EQ(m_model, readAnew());
}

TEST_P(CDiskWriterTest, RequestedZerosHideAParentsData) {
    writeZeros(grainSize - 100, 2 * grainSize + 200);
    EXPECT_EQ(m_model, readAnew());
}

TEST_P(CDiskWriterTest, ZerosThatHideNothingAreNotStored) {
    writeZeros(3 * grainSize, 4 * grainSize);
    write(false, 10 * grainSize, grainSize, 0);
    EXPECT_EQ(m_model, readAnew());
    EXPECT_FALSE(isStoredHere(3));
    EXPECT_FALSE(isStoredHere(10));
}

TEST_P(CDiskWriterTest, RequestedZerosReplaceWhatTheDiskHolds) {
    write(false, 5 * grainSize + 7, 3 * grainSize, 9);
    writeZeros(5 * grainSize, 2 * grainSize + 3);
    EXPECT_EQ(m_model, readAnew());
}

TEST_P(CDiskWriterTest, NewChildDoesNotStoreWhatItsParentHolds) {
    write(true, grainSize, 2 * grainSize, 1);
    EXPECT_EQ(m_model, readAnew());
    EXPECT_FALSE(isStoredHere(1));
    EXPECT_FALSE(isStoredHere(2));
}

INSTANTIATE_TEST_SUITE_P(Kinds, CDiskWriterTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Compressed" : "Plain"; });

} // namespace
} // namespace tessel
