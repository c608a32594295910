#pragma once

#include "CPreparerPool.h"
#include "ISource.h"
#include "platform.h"
#include "tessel/CVMDKDisk.h"

#include <optional>

namespace tessel::cli {

/// A raw image. May be read in any order.
class CRawSource : public ISource {
public:
    explicit CRawSource(CRawFile file) : m_file(std::move(file)), m_size(m_file.getLength()) {}

    int64 getSizeBytes() const override { return m_size; }
    USourceRun findRun(int64 position) override;
    int read(int64 position, unsigned char* buffer, int count) override;

private:
    CRawFile m_file;
    int64 m_size;
    CRawFile::URegion m_data = {-1, -1};
    int64 m_holeStart = 0; ///< from here to the data nothing is held
};

/// Raw data from standard input.
class CInputSource : public ISource {
public:
    int64 getSizeBytes() const override { return m_size; }
    USourceRun findRun(int64) override { return {INT64_MAX / 2, true}; }
    int read(int64 position, unsigned char* buffer, int count) override;

private:
    int64 m_size = getInputSize();
};

/// A disk with its parents. May be read in any order. Compressed grains are read as they are stored, those of
/// parents too where they are of the same kind and size.
class CDiskSource : public ISource {
public:
    CDiskSource(std::string name, CVMDKDisk* disk);

    int64 getSizeBytes() const override { return m_disk->getSizeBytes(); }
    USourceRun findRun(int64 position) override;
    int read(int64 position, unsigned char* buffer, int count) override;
    int64 getStoredGrainSizeBytes() const override { return m_preparers ? m_grainSize : 0; }
    int readPiece(CPiece& piece, int count) override;
    void unpack(CPiece& piece, bool all) override;

private:
    const UVMDKGrainRun& lookUp(int64 position);
    void readBytes(int64 position, unsigned char* buffer, int64 count);

    std::string m_name;
    P<CVMDKDisk> m_disk;
    int64 m_grainSize;
    UVMDKGrainRun m_run = {0, 0, UVMDKGrainRun::nowhere};
    std::optional<CPreparerPool> m_preparers;
};

} // namespace tessel::cli
