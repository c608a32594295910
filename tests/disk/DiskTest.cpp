#include "DiskTest.h"

#include "tessel/VMDKEmptyExtentFile.h"

#include <cstring>

namespace tessel::test {

Bytes randomBytes(unsigned seed, int64 size) {
    std::mt19937 random(seed);
    Bytes bytes(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < bytes.size(); i += sizeof(uint32)) {
        const auto word = static_cast<uint32>(random());
        std::memcpy(bytes.data() + i, &word, std::min(sizeof(word), bytes.size() - i));
    }
    return bytes;
}

Bytes zeroBytes(int64 size) {
    return Bytes(static_cast<std::size_t>(size));
}

Bytes readAt(CVMDKDisk& disk, int64 position, int64 size) {
    Bytes bytes(static_cast<std::size_t>(size), 0xAA);
    disk.seek(position);
    disk.read(bytes.data(), static_cast<int>(size));
    return bytes;
}

Bytes readAll(CVMDKDisk& disk) {
    return readAt(disk, 0, disk.getSizeBytes());
}

void writeAt(CVMDKDisk& disk, int64 position, const Bytes& data) {
    disk.seek(position);
    disk.write(data.data(), static_cast<int>(data.size()));
}

Bytes toBytes(const TBuffer<unsigned char>& buffer) {
    return Bytes(buffer.getData(), buffer.getData() + buffer.getUsed());
}

Bytes unprepare(CVMDKDisk& disk, TBuffer<unsigned char>& prepared) {
    const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(prepared));
    const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
    return toBytes(*disk.createDataPreparer()->unprepareGrainData(source.get(), aux.get()));
}

DiskTest::DiskTest() = default;
DiskTest::~DiskTest() = default;

void DiskTest::TearDown() {
    EXPECT_THAT(takeLog(), ::testing::IsEmpty());
}

P<CVMDKDisk> DiskTest::create(const DiskOptions& options, const String& name) {
    return CVMDKDisk::create(files(), uri(name), options.size, options.password, options.compressed,
                             options.level, options.limit, options.parentPath, options.parentID,
                             options.onDemand);
}

P<CVMDKDisk> DiskTest::open(IIOStream::Access access, const String& name, const char* password) {
    return new CVMDKDisk(files(), uri(name), access, password, -1, nullptr, nullptr);
}

void DiskTest::putFile(const String& name, const std::string& contents) {
    const P<IIOStream> stream = m_memory->openFile(uri(name), forWriting);
    stream->setLength(0);
    stream->write(contents.data(), static_cast<int>(contents.size()));
}

std::string DiskTest::getFile(const String& name) const {
    const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
    std::string contents(static_cast<std::size_t>(stream->getLength()), '\0');
    stream->read(contents.data(), static_cast<int>(contents.size()));
    return contents;
}

std::vector<std::string> DiskTest::listFiles() const {
    std::vector<std::string> names;
    for (const CURI& file : m_memory->listFiles())
        names.push_back(file.getName().toUTF8());
    return names;
}

void DiskTest::putDescriptor(const std::vector<std::string>& lines, const String& name) {
    std::string text = "# Disk DescriptorFile\nversion=1\n";
    for (const std::string& line : lines)
        text += line + "\n";
    putFile(name, text);
}

void DiskTest::putSplitDescriptor(const std::vector<std::string>& extentLines, const String& name) {
    std::vector<std::string> lines = {"encoding=\"UTF-8\"",
                                      "CID=12345678",
                                      "parentCID=ffffffff",
                                      "createType=\"twoGbMaxExtentSparse\"",
                                      "",
                                      "# Extent description"};
    lines.insert(lines.end(), extentLines.begin(), extentLines.end());
    putDescriptor(lines, name);
}

void DiskTest::putExtent(const String& name, int64 grainCount, int64 grainSizeSectors, bool compressed) {
    const TBuffer<unsigned char> zeros(2048);
    createEmptyVMDKSparseExtentFile(m_memory.get(), uri(name), compressed, grainCount, grainSizeSectors,
                                    zeros, nullptr, 0, TBuffer<unsigned char>());
}

void DiskTest::editDescriptor(const std::function<void(CVMDKDescriptor&)>& edit, const String& name) {
    const P<IIOStream> stream = m_memory->openFile(uri(name), forWriting);
    const P<CVMDKDescriptorAccessor> accessor(new CVMDKDescriptorAccessor(stream.get(), forWriting));
    edit(*accessor->getDescriptor());
    accessor->storeDescriptor(true);
}

String DiskTest::descriptorText(const String& name) const {
    const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
    const P<CVMDKDescriptorAccessor> accessor(new CVMDKDescriptorAccessor(stream.get(), forReading));
    return accessor->getDescriptor()->toString();
}

TArray<CLogRecorder::Entry> DiskTest::takeLog() {
    TArray<CLogRecorder::Entry> entries = m_log.takeEntries();
    std::erase_if(entries,
                  [](const CLogRecorder::Entry& entry) { return entry.level == ILogSink::Level_Info; });
    return entries;
}

} // namespace tessel::test
