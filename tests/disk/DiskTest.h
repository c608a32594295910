#pragma once

#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKDisk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace tessel::test {

using namespace lum;

using Bytes = std::vector<unsigned char>;

constexpr int64 KiB = 1024;
constexpr int64 MiB = 1024 * KiB;
constexpr int64 GiB = 1024 * MiB;
constexpr int64 TiB = 1024 * GiB;
/// Bytes of a grain of the disks that the library makes.
constexpr int64 grainBytes = 64 * KiB;
constexpr int grainSize = static_cast<int>(grainBytes);
constexpr unsigned int noParent = 0xFFFFFFFF;

constexpr auto forReading = IIOStream::Access_Read;
constexpr auto forWriting = IIOStream::Access_ReadWrite;

/// What a disk is made with; by default a plain one in a single file.
struct DiskOptions {
    int64 size = 8 * MiB;
    const char* password = "";
    bool compressed = false;
    int level = -1;
    int64 limit = -1;
    String parentPath = {};
    unsigned int parentID = noParent;
    bool onDemand = false;
};

/// Fills with bytes that look random and are the same each time.
Bytes randomBytes(unsigned seed, int64 size);
Bytes zeroBytes(int64 size);

Bytes readAt(CVMDKDisk& disk, int64 position, int64 size);
Bytes readAll(CVMDKDisk& disk);
void writeAt(CVMDKDisk& disk, int64 position, const Bytes& data);
/// A prepared grain as plain bytes.
Bytes unprepare(CVMDKDisk& disk, TBuffer<unsigned char>& prepared);
Bytes toBytes(const TBuffer<unsigned char>& buffer);

/// Disks in the folder "memory:/folder". A test fails when a warning or an error is logged that it does
/// not take.
class DiskTest : public ::testing::Test {
protected:
    DiskTest();
    ~DiskTest() override;
    void TearDown() override;

    static CURI uri(const String& name) { return CURI(String("memory:/folder")) << name; }
    /// As errors name it.
    static String path(const String& name) { return uri(name).toString(true); }

    /// What the disks are opened through; the memory file system unless a test puts another one over it.
    IFileSystem* files() const { return m_files.get(); }

    P<CVMDKDisk> create(const DiskOptions& options = {}, const String& name = "disk.vmdk");
    P<CVMDKDisk> open(IIOStream::Access access = forWriting, const String& name = "disk.vmdk",
                      const char* password = "");
    P<CVMDKDisk> openForReading(const String& name = "disk.vmdk") { return open(forReading, name); }

    /// A file of these bytes and no others.
    void putFile(const String& name, const std::string& contents);
    std::string getFile(const String& name) const;
    bool exists(const String& name) const { return m_memory->fileExists(uri(name)); }
    /// The names of all files.
    std::vector<std::string> listFiles() const;

    /// A descriptor as a text file: settings and extent lines, one a line, in this order.
    void putDescriptor(const std::vector<std::string>& lines, const String& name = "disk.vmdk");
    /// The descriptor of a disk of several files without parent.
    void putSplitDescriptor(const std::vector<std::string>& extentLines, const String& name = "disk.vmdk");
    /// An empty extent file of its own.
    void putExtent(const String& name, int64 grainCount, int64 grainSizeSectors = 128,
                   bool compressed = false);
    /// Changes the descriptor of a disk where it is stored.
    void editDescriptor(const std::function<void(CVMDKDescriptor&)>& edit, const String& name = "disk.vmdk");
    /// The text of a disk's descriptor, without what fills its area.
    String descriptorText(const String& name = "disk.vmdk") const;

    /// The warnings and errors that were logged; they are forgotten by this.
    TArray<CLogRecorder::Entry> takeLog();

    CLogRecorder m_log;
    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<IFileSystem> m_files = m_memory;
};

} // namespace tessel::test
