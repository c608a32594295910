#include "Copy.h"

#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>
#include <memory>

namespace tessel::cli {

namespace {

constexpr int64 roundDown(int64 value) {
    return value / copyAlignment * copyAlignment;
}

/// What stands at `position`, cut so that it begins and ends at copyAlignment: data grow, zeros shrink.
USourceRun findAlignedRun(ISource& source, int64 position, int64 size) {
    USourceRun run = source.findRun(position);
    int64 end = std::min(size, position + run.sizeBytes);
    if (!run.isData)
        end = end == size ? size : roundDown(end);
    if (end == position) { // zeros that end within the unit
        run.isData = true;
        end = position + 1;
    }
    if (run.isData)
        end = size - end <= copyAlignment ? size : roundUp(end, copyAlignment);
    return {end - position, run.isData};
}

/// Zeros up to the next unit or `most` bytes in all. Returns how many bytes the buffer holds then.
int padToUnit(unsigned char* buffer, int size, int64 most) {
    const auto padded = static_cast<int>(std::min(roundUp(size, copyAlignment), most));
    std::fill(buffer + size, buffer + padded, static_cast<unsigned char>(0));
    return padded;
}

} // namespace

int64 copy(ISource& source, ISink& sink, int64 sizeBytes, CProgress& progress) {
    const std::unique_ptr<unsigned char[]> buffer(new unsigned char[transferSize]);
    const int64 known = source.getSizeBytes();
    const int64 wanted = sizeBytes < 0 ? known : sizeBytes;
    int64 fromSource = wanted < 0 ? INT64_MAX : known < 0 ? wanted : std::min(wanted, known);
    int64 position = 0;
    while (position < fromSource) {
        throwIfInterrupted();
        const USourceRun run = findAlignedRun(source, position, fromSource);
        if (!run.isData) {
            sink.writeZeros(position, run.sizeBytes);
            position += run.sizeBytes;
            progress.advanceTo(position);
            continue;
        }
        const int64 end = position + run.sizeBytes;
        for (; position < end; progress.advanceTo(position)) {
            throwIfInterrupted();
            const int count = static_cast<int>(std::min<int64>(end - position, transferSize));
            const int got = source.read(position, buffer.get(), count);
            if (got < count)
                fromSource = position + got;
            const int padded = padToUnit(buffer.get(), got, wanted < 0 ? got : wanted - position);
            sink.write(position, buffer.get(), padded);
            position += padded;
            if (got < count)
                break;
        }
    }
    const int64 size = wanted < 0 ? fromSource : wanted;
    if (position < size)
        sink.writeZeros(position, size - position);
    progress.advanceTo(size);
    sink.finish(size);
    return fromSource;
}

} // namespace tessel::cli
