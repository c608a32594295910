#pragma once

#include "foundation/lum/COpenFile.h"

#include <memory>
#include <mutex>

namespace lum {

/// The contents of a file in memory and the locks on it, shared by all who have it open. Safe to use
/// from several threads.
class CMemoryFile : public CBase {
public:
    int64 getLength() const;
    int read(int64 position, unsigned char* buffer, int count) const;
    void write(int64 position, const unsigned char* data, int size);
    void setLength(int64 length);

    /// False when a holder other than `holder` excludes it.
    bool tryLock(const void* holder, int64 start, int64 end, bool exclusive);
    void unlock(const void* holder, int64 start, int64 end) noexcept;

private:
    struct Lock {
        const void* holder;
        int64 start;
        int64 end;
        bool exclusive;
    };
    using Piece = std::unique_ptr<unsigned char[]>;

    mutable std::mutex m_mutex;
    int64 m_length = 0;
    /// By position / pieceSize. Missing ones read as zeros; so do, in all of them, the bytes behind
    /// the file's length.
    TMap<int64, Piece> m_pieces;
    TArray<Lock> m_locks;
};

/// A file in memory as it is open once.
class COpenMemoryFile : public COpenFile {
public:
    COpenMemoryFile(CMemoryFile* file, const CURI& uri) : COpenFile(uri), m_file(file) {}

    const CMemoryFile* getMemoryFile() const noexcept { return m_file.get(); }

    int64 getLength() const override { return m_file->getLength(); }
    int read(int64 position, void* buffer, int count) override {
        return m_file->read(position, static_cast<unsigned char*>(buffer), count);
    }
    void write(int64 position, const void* data, int size) override {
        m_file->write(position, static_cast<const unsigned char*>(data), size);
    }
    void setLength(int64 length) override { m_file->setLength(length); }
    void flush() override {}

protected:
    bool tryLock(int64 start, int64 end, bool exclusive) override {
        return m_file->tryLock(this, start, end, exclusive);
    }
    void unlock(int64 start, int64 end) noexcept override { m_file->unlock(this, start, end); }
    void closeFile() override {}

private:
    P<CMemoryFile> m_file;
};

} // namespace lum
