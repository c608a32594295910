#pragma once

#include "Copy.h"
#include "DiskWriter.h"
#include "NewDisk.h"

namespace tessel::cli {

/// A raw image in which zeros become holes.
class CRawSink : public ISink {
public:
    explicit CRawSink(CStagedFile* file) : m_file(file) {}

    void write(int64 position, const unsigned char* data, int size) override;
    void writeZeros(int64, int64) override {}
    void finish(int64 sizeBytes) override { m_file->getFile().setLength(sizeBytes); }

private:
    CStagedFile* m_file;
};

/// Raw data to standard output.
class COutputSink : public ISink {
public:
    void write(int64 position, const unsigned char* data, int size) override;
    void writeZeros(int64 position, int64 sizeBytes) override;
    void finish(int64) override {}
};

/// A new disk, in which grains of zeros are not stored unless they hide a parent's data.
class CDiskSink : public ISink {
public:
    explicit CDiskSink(CNewDisk* disk) : m_disk(disk), m_writer(&disk->getDisk(), true) {}

    void write(int64 position, const unsigned char* data, int size) override;
    void writeZeros(int64 position, int64 sizeBytes) override;
    void finish(int64) override {}

private:
    CNewDisk* m_disk;
    CDiskWriter m_writer;
};

} // namespace tessel::cli
