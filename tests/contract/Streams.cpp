#include "Streams.h"

#include "FileSystems.h"
#include "lum/CBufferStream.h"
#include "lum/COptimizingIOStream.h"

namespace tessel::test {

using namespace lum;

std::vector<StreamKind> getStreamKinds() {
    std::vector<StreamKind> kinds;
    for (const FileSystemKind& fileSystemKind : getFileSystemKinds()) {
        const auto makeBare = [&fileSystemKind]() -> StreamUnderTest {
            const auto setUp = std::make_shared<FileSystemUnderTest>(fileSystemKind.make());
            return {setUp,
                    setUp->fileSystem->openFile(setUp->folder << String("a"), IIOStream::Access_ReadWrite),
                    true};
        };
        const auto makeOptimizing = [makeBare] {
            StreamUnderTest result = makeBare();
            result.stream = new COptimizingIOStream(result.stream.get());
            return result;
        };
        kinds.push_back({fileSystemKind.name, makeBare});
        kinds.push_back({std::string("Optimizing") + fileSystemKind.name, makeOptimizing});
        kinds.push_back({std::string("OptimizingTwice") + fileSystemKind.name, [makeOptimizing] {
                             StreamUnderTest result = makeOptimizing();
                             result.stream = new COptimizingIOStream(result.stream.get());
                             return result;
                         }});
    }
    const auto makeBuffer = [](double growth) -> StreamUnderTest {
        const auto buffer = std::make_shared<TBuffer<unsigned char>>();
        return {buffer, P<IIOStream>(new CBufferStream(buffer.get(), growth)), false};
    };
    kinds.push_back({"Buffer", [makeBuffer] { return makeBuffer(1.0); }});
    kinds.push_back({"GrowingBuffer", [makeBuffer] { return makeBuffer(2.0); }});
    kinds.push_back({"OptimizingBuffer", [makeBuffer] {
                         StreamUnderTest result = makeBuffer(1.5);
                         result.stream = new COptimizingIOStream(result.stream.get());
                         return result;
                     }});
    return kinds;
}

} // namespace tessel::test
