#pragma once

#include "CDiskWriter.h"
#include "CNewDisk.h"
#include "CParentGrains.h"
#include "CPreparerPool.h"
#include "CStagedFile.h"
#include "ISink.h"

#include <optional>

namespace tessel::cli {

/// Zeros from here on are worth a hole: the block of most file systems.
constexpr int rawHoleUnit = 4096;

/// A raw image in which zeros become holes.
class CRawSink : public ISink {
public:
    explicit CRawSink(CStagedFile* file) : m_file(file) {}

    void write(CPiece& piece) override;
    void writeZeros(int64, int64) override {}
    void finish(int64 sizeBytes) override { m_file->getFile().setLength(sizeBytes); }

private:
    CStagedFile* m_file;
};

/// Raw data to standard output.
class COutputSink : public ISink {
public:
    void write(CPiece& piece) override;
    void writeZeros(int64 position, int64 sizeBytes) override;
    void finish(int64) override {}
};

/// A new disk, in which grains of zeros are not stored unless they hide a parent's data.
class CDiskSink : public ISink {
public:
    /// `disk` is borrowed. `level` is that of the new disk, -1 when none was asked for: compressed grains are
    /// then taken over as the source stores them.
    CDiskSink(CNewDisk* disk, int level);

    bool takesStoredGrains(int64 grainSizeBytes) const override;
    void prepare(CPiece& piece) override;
    void write(CPiece& piece) override;
    void writeZeros(int64 position, int64 sizeBytes) override;
    void finish(int64) override {}

private:
    void prepareGrains(CPiece& piece);
    bool mustStore(int64 position, const unsigned char* bytes, TBuffer<unsigned char>& below);
    void writePiece(CPiece& piece);

    CNewDisk* m_disk;
    CDiskWriter m_writer;
    int64 m_grainSize;
    bool m_keepsLevel;
    /// Where grains are prepared ahead of the writing.
    std::optional<CPreparerPool> m_preparers;
    /// Grains that equal a parent's are not stored, and need not be prepared.
    std::optional<CParentGrains> m_parentGrains;
};

} // namespace tessel::cli
