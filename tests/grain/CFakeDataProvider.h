#pragma once

#include "Bytes.h"
#include "lum/CBase.h"
#include "lum/CIOError.h"
#include "tessel/CVMDKDataPreparer.h"
#include "tessel/IVMDKDataProvider.h"

#include <ostream>

namespace tessel::test {

/// A parent disk of endless pattern that counts as written wherever `written` says so. It remembers what
/// it was asked.
class CFakeDataProvider : public CBase, public IVMDKDataProvider {
public:
    enum Kind { Data, Prepared, Written };
    struct Call {
        Kind kind;
        int64 position = 0;
        int size = 0;
        bool compressed = false;

        friend bool operator==(const Call&, const Call&) = default;
    };

    explicit CFakeDataProvider(unsigned int seed = 100) : m_seed(seed) {}

    bool written = true;
    /// Every call fails with CIOError 1, "Parent cannot be read".
    bool fails = false;

    TArray<Call> takeCalls() { return std::exchange(m_calls, {}); }

    Bytes contents(int64 position, int64 count) const {
        Bytes bytes(count);
        for (int64 i = 0; i < count; ++i)
            bytes[i] =
                static_cast<unsigned char>(((position + i) * 5 + (position + i) / 509 + m_seed) & 0xFF);
        return bytes;
    }

    void getData(int64 position, void* buffer, int size) override {
        note({Data, position, size});
        const Bytes bytes = contents(position, size);
        std::copy_n(bytes.getData(), size, static_cast<unsigned char*>(buffer));
    }
    /// The record says that it is grain 0's: nobody may rely on what another disk wrote there.
    void getPreparedGrainData(int64 position, TBuffer<unsigned char>& out, int grainSizeBytes,
                              bool compressed) override {
        note({Prepared, position, grainSizeBytes, compressed});
        CVMDKDataPreparer preparer(grainSizeBytes / vmdkSectorSize, compressed, 1);
        const P<TBuffer<unsigned char>> plain(new TBuffer<unsigned char>(contents(position, grainSizeBytes)));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        out = *preparer.prepareGrainData(plain.get(), 0, aux.get());
    }
    bool isGrainWritten(int64 position) override {
        note({Written, position});
        return written;
    }

private:
    void note(const Call& call) {
        m_calls.push_back(call);
        if (fails)
            throw CIOError(CIOError::Code_ReadFailed, "Parent cannot be read");
    }

    unsigned int m_seed;
    TArray<Call> m_calls;
};

inline void PrintTo(const CFakeDataProvider::Call& call, std::ostream* out) {
    *out << "{" << call.kind << ", " << call.position << ", " << call.size << ", " << call.compressed << "}";
}

} // namespace tessel::test
