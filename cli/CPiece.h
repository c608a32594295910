#pragma once

#include "tessel/types.h"

#include <exception>
#include <memory>
#include <vector>

namespace tessel::cli {

/// A piece of a copy on its way from the source to the sink: a run of zeros, or at most getCapacity() bytes
/// of data. Parts of data may be in prepared form in place of plain bytes: grains as the source stores them,
/// until the source unpacks them or the sink takes them over, and grains as the sink will store them. One
/// thread at a time. Memory is kept from use to use: the plain bytes and as many records at most.
class CPiece {
public:
    struct UGrain {
        int offset; ///< bytes from the start of the piece
        P<TBuffer<unsigned char>> record;
    };

    explicit CPiece(int capacity) : m_capacity(capacity) {}

    int getCapacity() const noexcept { return m_capacity; }

    /// The piece is a run of zeros now.
    void setZeros(int64 position, int64 sizeBytes);
    /// The piece is data at a position now; how many is told by setSize.
    void beginData(int64 position);
    void setSize(int64 size) noexcept { m_size = size; }

    int64 getPosition() const noexcept { return m_position; }
    int64 getSizeBytes() const noexcept { return m_size; }
    bool isData() const noexcept { return m_isData; }

    /// Room for the plain bytes; what stands in the place of a stored grain is undefined.
    unsigned char* getBytes();

    /// A record for the grain at an offset, to be filled, as the source stores it. Offsets grow.
    TBuffer<unsigned char>& addStored(int offset);
    const std::vector<UGrain>& getStored() const noexcept { return m_stored; }
    /// Drops the stored grains for which `isUsedUp` is true; their records' memory is used again.
    template <class Predicate>
    void dropStored(Predicate isUsedUp) {
        std::erase_if(m_stored, [&](const UGrain& grain) {
            const bool isDropped = isUsedUp(grain);
            if (isDropped)
                m_spare.push_back(grain.record);
            return isDropped;
        });
    }

    /// A record for the grain at an offset, to be filled, as the sink will store it.
    P<TBuffer<unsigned char>> addPrepared(int offset);
    /// The sink takes a stored grain as it is.
    void addPrepared(const UGrain& stored) { m_prepared.push_back(stored); }
    const std::vector<UGrain>& getPrepared() const noexcept { return m_prepared; }

    /// What went wrong with this piece on its way. It is told where the piece would have been written, so
    /// that of several failures the first of the copy is told.
    void setError(std::exception_ptr error) noexcept { m_error = std::move(error); }
    void throwError() const {
        if (m_error)
            std::rethrow_exception(m_error);
    }
    bool hasError() const noexcept { return m_error != nullptr; }

private:
    void begin(int64 position, int64 size, bool isData);
    P<TBuffer<unsigned char>> takeRecord();

    int m_capacity;
    int64 m_position = 0;
    int64 m_size = 0;
    bool m_isData = false;
    std::unique_ptr<unsigned char[]> m_bytes;
    std::vector<UGrain> m_stored;
    std::vector<UGrain> m_prepared;
    std::vector<P<TBuffer<unsigned char>>> m_records; ///< all that were made
    std::vector<P<TBuffer<unsigned char>>> m_spare;   ///< those of them that nobody uses
    std::exception_ptr m_error;
};

} // namespace tessel::cli
