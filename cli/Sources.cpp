#include "Sources.h"

#include "Errors.h"

namespace tessel::cli {

USourceRun CRawSource::findRun(int64 position) {
    if (position >= m_data.end)
        m_data = m_file.findData(position, m_size);
    return position < m_data.start ? USourceRun{m_data.start - position, false}
                                   : USourceRun{std::max<int64>(m_data.end - position, 1), true};
}

int CRawSource::read(int64 position, unsigned char* buffer, int count) {
    m_file.read(position, buffer, count);
    return count;
}

int CInputSource::read(int64, unsigned char* buffer, int count) {
    const int got = readInput(buffer, count);
    if (got < count && m_size >= 0)
        throw CFailure("standard input", "The file became shorter while it was read");
    return got;
}

USourceRun CDiskSource::findRun(int64 position) {
    return about(m_name, [&] {
        const UVMDKGrainRun run = m_disk->findGrainRun(position);
        return USourceRun{run.sizeBytes, run.layer != UVMDKGrainRun::nowhere};
    });
}

int CDiskSource::read(int64 position, unsigned char* buffer, int count) {
    return about(m_name, [&] {
        m_disk->seek(position);
        m_disk->read(buffer, count);
        return count;
    });
}

} // namespace tessel::cli
