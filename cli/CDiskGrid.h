#pragma once

#include "CProgress.h"
#include "tessel/CVMDKDisk.h"

#include <array>
#include <vector>

namespace tessel::cli {

/// A disk cut into cells of equal size, for pictures of it: how much of each cell is stored where, and in how
/// many bytes.
class CDiskGrid {
public:
    /// Parents that are told apart; those further back count as one more.
    static constexpr int tellableParents = 3;
    /// The disk itself, its parents, and all parents further back.
    static constexpr int stateCount = tellableParents + 2;

    struct UCell {
        int64 sizeBytes = 0;
        /// Bytes of the cell by where they are stored; 0: the disk itself, then its parents. What is left is
        /// stored nowhere.
        std::array<int64, stateCount> bytes{};
        /// Bytes that those of the disk itself take in its files.
        int64 storedBytes = 0;

        int64 getWritten() const noexcept;
    };

    /// Looks at every grain table of the disk, and at no grain. There are at most `mostCells`, and each is a
    /// power of two times a grain. Throws: what the library throws; CInterrupted.
    CDiskGrid(CVMDKDisk& disk, int mostCells, CProgress& progress);

    const std::vector<UCell>& getCells() const noexcept { return m_cells; }
    /// Of all cells but the last one, which may be smaller.
    int64 getCellSizeBytes() const noexcept { return m_cellSize; }
    /// All cells together.
    const UCell& getTotal() const noexcept { return m_total; }

private:
    int64 m_cellSize;
    std::vector<UCell> m_cells;
    UCell m_total;
};

/// Columns of a grid of so many cells in a picture that is about twice as wide as high: a power of two, at
/// most `most`.
int chooseColumns(std::size_t cells, int most);

/// "less than 1 %", "34 %"; 100 % only for all of it.
std::string formatShare(int64 part, int64 whole);

} // namespace tessel::cli
