#include "Sinks.h"

#include "Errors.h"
#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>
#include <array>

namespace tessel::cli {

namespace {

/// Zeros from here on are worth a hole: the block of most file systems.
constexpr int holeUnit = 4096;

constexpr std::array<unsigned char, 65536> zeros{};

} // namespace

void CRawSink::write(int64 position, const unsigned char* data, int size) {
    const auto isHole = [&](int offset) {
        return isZeroMemory(data + offset, static_cast<std::size_t>(std::min(holeUnit, size - offset)));
    };
    for (int start = 0; start < size;) {
        if (isHole(start)) {
            start += holeUnit;
            continue;
        }
        int end = start + holeUnit;
        while (end < size && !isHole(end))
            end += holeUnit;
        end = std::min(end, size);
        m_file->getFile().write(position + start, data + start, end - start);
        start = end;
    }
}

void COutputSink::write(int64, const unsigned char* data, int size) {
    writeOutput(data, size);
}

void COutputSink::writeZeros(int64, int64 sizeBytes) {
    while (sizeBytes > 0) {
        const int64 piece = std::min<int64>(sizeBytes, zeros.size());
        writeOutput(zeros.data(), piece);
        sizeBytes -= piece;
    }
}

void CDiskSink::write(int64 position, const unsigned char* data, int size) {
    m_disk->run([&] { m_writer.write(position, data, size); });
}

void CDiskSink::writeZeros(int64 position, int64 sizeBytes) {
    m_disk->run([&] { m_writer.writeZeros(position, sizeBytes); });
}

} // namespace tessel::cli
