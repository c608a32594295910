// A disk as a stream: what every stream promises, as far as a disk's length allows, and what it refuses.

#include "tessel/CVMDKDiskIOStream.h"

#include "CFaultFileSystem.h"
#include "DiskTest.h"
#include "lum/CDataOutStream.h"
#include "lum/COptimizingIOStream.h"

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int64 length = 8 * MiB;

class CVMDKDiskIOStreamTest : public DiskTest {
protected:
    CVMDKDiskIOStreamTest() : m_disk(create()), m_stream(new CVMDKDiskIOStream(m_disk.get())) {}

    Bytes get(int64 position, int count) {
        Bytes bytes(static_cast<std::size_t>(count), 0xAA);
        m_stream->seek(position);
        m_stream->read(bytes.data(), count);
        return bytes;
    }
    void put(int64 position, const Bytes& data) {
        m_stream->seek(position);
        m_stream->write(data.data(), static_cast<int>(data.size()));
    }

    P<CVMDKDisk> m_disk;
    P<CVMDKDiskIOStream> m_stream;
};

/// A stream of another kind of disk, bare or under a stream that buffers.
struct StreamKind {
    const char* name;
    DiskOptions options;
    bool optimizing;
};

void PrintTo(const StreamKind& kind, std::ostream* out) {
    *out << kind.name;
}

const StreamKind streamKinds[] = {
    {"Plain", {}, false},
    {"Split", {.limit = 3 * MiB}, false},
    {"Compressed", {.compressed = true}, false},
    {"EncryptedOnDemand", {.password = "secret", .limit = 3 * MiB, .onDemand = true}, false},
    {"OptimizingPlain", {}, true},
    {"OptimizingSplit", {.limit = 3 * MiB}, true},
    {"OptimizingCompressed", {.compressed = true}, true},
};

class CVMDKDiskIOStreamByKindTest : public DiskTest, public ::testing::WithParamInterface<StreamKind> {
protected:
    CVMDKDiskIOStreamByKindTest() {
        m_stream = new CVMDKDiskIOStream(create(GetParam().options).get());
        if (GetParam().optimizing)
            m_stream = new COptimizingIOStream(m_stream.get());
    }
    P<IIOStream> m_stream;
};

} // namespace

// --- As every stream ---

TEST_F(CVMDKDiskIOStreamTest, BeginsAtTheDisksPosition) {
    EXPECT_EQ(m_stream->getPosition(), 0);
    EXPECT_EQ(m_stream->getLength(), length);
    EXPECT_EQ(m_stream->getURI(), uri("disk.vmdk"));
    EXPECT_FALSE(m_stream->isEndOfStream());
    EXPECT_EQ(m_stream->isEndOfStream_NonBlocking(), 0);
    for (const int timeout : {0, -1, 1000000})
        EXPECT_TRUE(m_stream->waitReadable(timeout));
    m_disk->seek(77);
    EXPECT_EQ(m_stream->getPosition(), 77);
    EXPECT_EQ(CVMDKDiskIOStream(m_disk.get()).getPosition(), 77);
}

TEST_F(CVMDKDiskIOStreamTest, ReadsWhatWasWritten) {
    const Bytes data = randomBytes(1, 300000);
    put(5, data);
    EXPECT_EQ(m_stream->getPosition(), 300005);
    EXPECT_EQ(get(5, 300000), data);
    put(100, Bytes(10, 'x'));
    EXPECT_EQ(get(99, 12), (Bytes{data[94], 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', data[105]}));
    EXPECT_EQ(m_stream->getLength(), length);
}

TEST_F(CVMDKDiskIOStreamTest, TransfersOfNothing) {
    m_stream->seek(length);
    m_stream->read(nullptr, 0);
    m_stream->write(nullptr, 0);
    EXPECT_EQ(m_stream->readLax(nullptr, 0), 0);
    EXPECT_EQ(m_stream->getPosition(), length);
}

TEST_F(CVMDKDiskIOStreamTest, LaxReadStopsAtTheEnd) {
    put(length - 40, Bytes(40, 'z'));
    Bytes buffer(100);
    m_stream->seek(length - 40);
    EXPECT_EQ(m_stream->readLax(buffer.data(), 100), 40);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 40), Bytes(40, 'z'));
    EXPECT_EQ(buffer[40], 0);
    EXPECT_TRUE(m_stream->isEndOfStream());
    EXPECT_EQ(m_stream->isEndOfStream_NonBlocking(), 1);
    EXPECT_EQ(m_stream->readLax(buffer.data(), 100), 0);
    EXPECT_EQ(m_stream->readAvailable(buffer.data(), 100), 0);
    m_stream->seek(length - 7);
    EXPECT_EQ(m_stream->readAvailable(buffer.data(), 100), 7);
    m_stream->seek(0);
    EXPECT_EQ(m_stream->readAvailable(buffer.data(), 100), 100);
}

TEST_F(CVMDKDiskIOStreamTest, SlicesAreWrittenAndMayBeChangedAtOnce) {
    TBuffer<unsigned char> buffer(1000);
    buffer.fill('a');
    m_stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer, 100, 500));
    buffer.fill('b');
    m_stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer, 0, 0));
    EXPECT_EQ(m_stream->getPosition(), 500);
    EXPECT_EQ(get(0, 500), Bytes(500, 'a'));
    EXPECT_EQ(get(500, 10), zeroBytes(10));
}

TEST_F(CVMDKDiskIOStreamTest, NegativeCountsAreRefusedAsByOtherStreams) {
    unsigned char byte = 0;
    const String name = path("disk.vmdk");
    EXPECT_INVALID_ARG_ERROR(m_stream->read(&byte, -1), "IInStream::read", "Invalid count: -1",
                             {{"uri", name}});
    EXPECT_INVALID_ARG_ERROR(m_stream->readLax(&byte, -2), "IInStream::read", "Invalid count: -2",
                             {{"uri", name}});
    EXPECT_INVALID_ARG_ERROR(m_stream->readAvailable(&byte, -3), "IInStream::read", "Invalid count: -3",
                             {{"uri", name}});
    EXPECT_INVALID_ARG_ERROR(m_stream->write(&byte, -4), "IOutStream::write", "Invalid count: -4",
                             {{"uri", name}});
    EXPECT_EQ(m_stream->getPosition(), 0);
}

TEST_F(CVMDKDiskIOStreamTest, FlushMakesChangesDurable) {
    const Bytes data = randomBytes(1, 100);
    put(0, data);
    m_stream->flush();
    putFile("copy.vmdk", getFile("disk.vmdk"));
    EXPECT_EQ(readAt(*openForReading("copy.vmdk"), 0, 100), data);
    takeLog(); // the copy's descriptor names the original
}

TEST_F(CVMDKDiskIOStreamTest, BarrierFlushesAndIsPassedOver) {
    const P<IWriteBarrier> first = m_stream->createWriteBarrier(nullptr);
    ASSERT_TRUE(first);
    const Bytes data = randomBytes(1, 100);
    m_stream->write(data.data(), 100, first.get());
    const P<IWriteBarrier> second = m_stream->createWriteBarrier(first.get());
    ASSERT_TRUE(second);
    EXPECT_NE(first, second);
    putFile("copy.vmdk", getFile("disk.vmdk"));
    EXPECT_EQ(readAt(*openForReading("copy.vmdk"), 0, 100), data);
    takeLog();
}

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskIOStreamByKindTest, ::testing::ValuesIn(streamKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(CVMDKDiskIOStreamByKindTest, AgreesWithAModel) {
    Bytes model = zeroBytes(length);
    std::mt19937 random(1);
    for (int step = 0; step < 200; ++step) {
        const int64 position = static_cast<int64>(random() % length);
        const auto size = static_cast<int>(std::min<int64>(random() % 150000, length - position));
        m_stream->seek(position);
        if (random() % 2 == 0) {
            const Bytes data = randomBytes(random(), size);
            m_stream->write(data.data(), size);
            std::copy(data.begin(), data.end(), model.begin() + position);
        } else {
            Bytes data(static_cast<std::size_t>(size));
            ASSERT_EQ(m_stream->readLax(data.data(), size), size);
            ASSERT_TRUE(std::equal(data.begin(), data.end(), model.begin() + position)) << "step " << step;
        }
        ASSERT_EQ(m_stream->getPosition(), position + size);
    }
    m_stream->close();
    m_stream = nullptr;
    EXPECT_EQ(readAll(*open(forReading, "disk.vmdk", GetParam().options.password)), model);
}

// --- What the disk's size forbids ---

TEST_F(CVMDKDiskIOStreamTest, ErrorsOfTheDiskPassThrough) {
    Bytes buffer(100);
    m_stream->seek(length - 40);
    EXPECT_LUM_ERROR(m_stream->read(buffer.data(), 100), CIOError, 4, "Read exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388568"}, {"bytesToRead", "100"}});
    EXPECT_LUM_ERROR(m_stream->write(buffer.data(), 100), CIOError, 3, "Write exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388568"}, {"bytesToWrite", "100"}});
    for (const int64 position : {length + 1, int64{-1}, INT64_MAX})
        EXPECT_LUM_ERROR(m_stream->seek(position), CIOError, 7,
                         "Bad seek position in VMDK disk: " + toDecimal(position),
                         {{"mainFileURI", path("disk.vmdk")}, {"diskSize", "8388608"}});
    EXPECT_EQ(m_stream->getPosition(), length - 40);
}

TEST_F(CVMDKDiskIOStreamTest, LengthCannotBeSet) {
    for (const int64 newLength : {length, int64{0}, length + 1, int64{-1}})
        EXPECT_LUM_ERROR(m_stream->setLength(newLength), CIOError, 13, "");
    EXPECT_EQ(m_stream->getLength(), length);
}

TEST_F(CVMDKDiskIOStreamTest, RangesCannotBeLocked) {
    const char* const message = "VMDK Disk I/O stream does not support lockRange.";
    EXPECT_FILE_SYSTEM_ERROR(m_stream->lockRange(0, 10, IStreamBase::LockType_Shared),
                             CFileSystemError::Problem_NotSupported, message);
    m_stream->close();
    EXPECT_FILE_SYSTEM_ERROR(m_stream->lockRange(0, 0, IStreamBase::LockType_Exclusive),
                             CFileSystemError::Problem_NotSupported, message);
    EXPECT_EQ(CFileSystemError::Problem_NotSupported, 6);
}

TEST_F(CVMDKDiskIOStreamTest, DiskForReadingTakesNoWrites) {
    m_stream = nullptr;
    m_disk = nullptr;
    const P<IIOStream> stream(new CVMDKDiskIOStream(files(), uri("disk.vmdk"), forReading, ""));
    const char* const message =
        "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.";
    TBuffer<unsigned char> data(10);
    EXPECT_LUM_ERROR(stream->write(data.getData(), 10), CError, -1, message);
    EXPECT_LUM_ERROR(stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(data)), CError, -1, message);
    EXPECT_LUM_ERROR(stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(data, 0, 0)), CError, -1,
                     message);
    EXPECT_NO_THROW(stream->flush());
    EXPECT_TRUE(stream->createWriteBarrier(nullptr));
    EXPECT_LUM_ERROR(stream->setLength(length), CIOError, 13, "");
}

// --- Opened by itself ---

TEST_F(CVMDKDiskIOStreamTest, OpensADiskAndLetsGoOfItWhenClosed) {
    m_stream = nullptr;
    m_disk = nullptr;
    create({.password = "secret", .compressed = true});
    const P<CVMDKDiskIOStream> stream(new CVMDKDiskIOStream(files(), uri("disk.vmdk"), forWriting, "secret"));
    EXPECT_TRUE(exists("disk.vmdk.lock"));
    stream->write("hello", 5);
    stream->close();
    EXPECT_FALSE(exists("disk.vmdk.lock"));
    EXPECT_EQ(readAt(*open(forReading, "disk.vmdk", "secret"), 0, 5), (Bytes{'h', 'e', 'l', 'l', 'o'}));
}

TEST_F(CVMDKDiskIOStreamTest, ErrorsOfOpeningPassThrough) {
    EXPECT_FILE_SYSTEM_ERROR(CVMDKDiskIOStream(files(), uri("dusk.vmdk"), forWriting, ""),
                             CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory", {{"uri", path("dusk.vmdk")}});
    EXPECT_FALSE(exists("dusk.vmdk"));
    create({.password = "secret"}, "secret.vmdk");
    EXPECT_LUM_ERROR(CVMDKDiskIOStream(files(), uri("secret.vmdk"), forReading, ""), CError, -1,
                     "VMDK is encrypted but no password provided", {{"uri", path("secret.vmdk")}});
}

// --- Copies ---

TEST_F(CVMDKDiskIOStreamTest, CopiesShareTheDiskAndItsPosition) {
    const P<CVMDKDiskIOStream> copy(new CVMDKDiskIOStream(*m_stream));
    copy->seek(1000);
    EXPECT_EQ(m_stream->getPosition(), 1000);
    m_stream->close();
    EXPECT_EQ(copy->getPosition(), 1000);
    EXPECT_EQ(copy->getURI(), uri("disk.vmdk"));

    const P<CVMDKDisk> other = create({}, "other.vmdk");
    const P<CVMDKDiskIOStream> assigned(new CVMDKDiskIOStream(other.get()));
    *assigned = *copy;
    EXPECT_EQ(assigned->getPosition(), 1000);
    EXPECT_EQ(assigned->getURI(), uri("disk.vmdk"));
    CVMDKDiskIOStream& itself = *assigned;
    *assigned = itself;
    EXPECT_EQ(assigned->getPosition(), 1000);
    *assigned = *m_stream; // a closed one
    EXPECT_LUM_ERROR(assigned->getPosition(), CIOError, 10, "");
}

// --- Closed ---

TEST_F(CVMDKDiskIOStreamTest, EverythingButTheURIFailsAfterClose) {
    m_stream->close();
    EXPECT_NO_THROW(m_stream->close());
    EXPECT_EQ(m_stream->getURI(), uri("disk.vmdk"));
    EXPECT_EQ(m_disk->getPosition(), 0); // the disk itself is somebody else's
    const TBuffer<unsigned char> data(10);
    unsigned char bytes[10];
    IIOStream& stream = *m_stream;
    EXPECT_LUM_ERROR(stream.getLength(), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.getPosition(), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.seek(0), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.seek(-1), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.read(bytes, 10), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.read(bytes, 0), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.read(bytes, -1), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.readLax(bytes, 10), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.readAvailable(bytes, 10), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.waitReadable(0), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.isEndOfStream(), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.isEndOfStream_NonBlocking(), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.write(bytes, 10), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.write(bytes, 0), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.writeKeepBuffer(TConstBufferSlice<unsigned char>(data)), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.writeKeepBuffer(TConstBufferSlice<unsigned char>(data, 0, 0)), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.createWriteBarrier(nullptr), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.flush(), CIOError, 10, "");
    EXPECT_LUM_ERROR(stream.setLength(length), CIOError, 10, "");
}

TEST_F(CVMDKDiskIOStreamTest, ClosingTheLastHolderFlushesAndReportsWhatFails) {
    m_stream = nullptr;
    m_disk = nullptr;
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
    m_files = faults;
    for (const bool close : {true, false}) {
        P<IIOStream> stream(new CVMDKDiskIOStream(files(), uri("disk.vmdk"), forWriting, ""));
        stream->write("hello", 5);
        faults->addRule({.operation = FaultRule::Write, .fileSuffix = "disk.vmdk", .always = true});
        if (close) {
            EXPECT_NO_THROW(stream->close());
        }
        stream = nullptr;
        faults->clearRules();
        const auto log = takeLog();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log[0].level, ILogSink::Level_Error);
        EXPECT_EQ(log[0].error, "Cannot write to file: Injected fault");
        EXPECT_FALSE(exists("disk.vmdk.lock"));
    }
}
