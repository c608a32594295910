#include "CDiskGrid.h"

#include "platform.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tessel::cli {

namespace {

int stateOfLayer(int layer) {
    return std::min(layer, CDiskGrid::stateCount - 1);
}

} // namespace

int64 CDiskGrid::UCell::getWritten() const noexcept {
    return std::accumulate(bytes.begin(), bytes.end(), int64{0});
}

CDiskGrid::CDiskGrid(CVMDKDisk& disk, int mostCells, CProgress& progress)
    : m_cellSize(disk.getGrainSizeBytes()) {
    const int64 size = disk.getSizeBytes();
    while ((size - 1) / m_cellSize >= mostCells)
        m_cellSize *= 2;
    m_cells.resize(static_cast<std::size_t>((size - 1) / m_cellSize + 1));
    int64 position = 0;
    for (UCell& cell : m_cells) {
        const int64 end = size - position < m_cellSize ? size : position + m_cellSize;
        cell.sizeBytes = end - position;
        while (position < end) {
            throwIfInterrupted();
            const UVMDKStoredRun run = disk.findStoredRun(position, end - position);
            position += run.sizeBytes;
            progress.advanceTo(position);
            if (run.layer == UVMDKGrainRun::nowhere)
                continue;
            cell.bytes[static_cast<std::size_t>(stateOfLayer(run.layer))] += run.sizeBytes;
            cell.storedBytes += run.layer == 0 ? run.storedBytes : 0;
        }
        for (std::size_t state = 0; state < stateCount; ++state)
            m_total.bytes[state] += cell.bytes[state];
        m_total.storedBytes += cell.storedBytes;
        m_total.sizeBytes += cell.sizeBytes;
    }
}

int chooseColumns(std::size_t cells, int most) {
    int columns = 16;
    while (columns < most &&
           static_cast<std::size_t>(columns) * static_cast<std::size_t>(columns) / 2 < cells)
        columns *= 2;
    return std::min(columns, most);
}

std::string formatShare(int64 part, int64 whole) {
    if (whole <= 0 || part <= 0)
        return "0 %";
    const double percent = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    if (percent < 1)
        return "less than 1 %";
    // What is nearly all is not all.
    const int64 shown = std::lround(percent);
    return std::to_string(part < whole ? std::min<int64>(shown, 99) : shown) + " %";
}

} // namespace tessel::cli
