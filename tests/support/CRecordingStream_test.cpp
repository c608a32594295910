#include "CRecordingStream.h"

#include "lum/CBufferStream.h"
#include "lum/CDummyWriteBarrier.h"

#include <gmock/gmock.h>

using namespace lum;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Operation = CRecordingStream::Operation;

TEST(CRecordingStream, WritesDownWhatIsAskedInOrder) {
    TBuffer<unsigned char> memory;
    const P<CRecordingStream> stream(
        new CRecordingStream(P<IIOStream>(new CBufferStream(&memory, 1.0)).get()));
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const TBuffer<unsigned char> slice(bytes, 3);

    stream->write(bytes, 8);
    stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(slice));
    stream->write(bytes, 1, stream->createWriteBarrier(nullptr).get());
    stream->flush();
    stream->seek(2);
    stream->read(bytes, 3);
    EXPECT_EQ(stream->readLax(bytes, 4), 4);
    EXPECT_EQ(stream->readAvailable(bytes, 6), 3);
    stream->setLength(5);
    EXPECT_THAT(stream->takeOperations(),
                ElementsAre(Operation{CRecordingStream::Write, 0, 8},
                            Operation{CRecordingStream::Write, 8, 3}, Operation{CRecordingStream::Barrier},
                            Operation{CRecordingStream::WriteWithBarrier, 11, 1},
                            Operation{CRecordingStream::Flush}, Operation{CRecordingStream::Read, 2, 3},
                            Operation{CRecordingStream::Read, 5, 4}, Operation{CRecordingStream::Read, 9, 6},
                            Operation{CRecordingStream::SetLength, 5}));
    EXPECT_THAT(stream->takeOperations(), IsEmpty());
    EXPECT_EQ(memory.getUsed(), 5);
}
