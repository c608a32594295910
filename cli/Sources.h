#pragma once

#include "Copy.h"
#include "platform.h"
#include "tessel/CVMDKDisk.h"

namespace tessel::cli {

/// A raw image.
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

/// A disk with its parents.
class CDiskSource : public ISource {
public:
    CDiskSource(std::string name, CVMDKDisk* disk) : m_name(std::move(name)), m_disk(disk) {}

    int64 getSizeBytes() const override { return m_disk->getSizeBytes(); }
    USourceRun findRun(int64 position) override;
    int read(int64 position, unsigned char* buffer, int count) override;

private:
    std::string m_name;
    P<CVMDKDisk> m_disk;
};

} // namespace tessel::cli
