#pragma once

#include "Bytes.h"
#include "lum/CBase.h"
#include "lum/CIOError.h"
#include "tessel/CVMDKDataPreparer.h"
#include "tessel/IVMDKDataProvider.h"

#include <algorithm>
#include <set>

namespace tessel::test {

/// A parent whose bytes can be told from their positions. It counts what it is asked.
class CFakeDataProvider : public CBase, public IVMDKDataProvider {
public:
    struct Call {
        int64 position;
        int64 size;

        friend bool operator==(const Call&, const Call&) = default;
    };

    /// The bytes of the disk at a position.
    static Bytes contentsAt(int64 position, int64 count) {
        Bytes bytes(count);
        for (int64 i = 0; i < count; ++i) {
            const int64 p = position + i;
            bytes[i] = static_cast<unsigned char>(p % 251 + p / 4096 + 1);
        }
        return bytes;
    }

    void getData(int64 position, void* buffer, int size) override {
        fail();
        dataCalls.push_back({position, size});
        const Bytes contents = contentsAt(position, size);
        std::copy_n(contents.getData(), size, static_cast<unsigned char*>(buffer));
    }
    void getPreparedGrainData(int64 position, TBuffer<unsigned char>& out, int grainSizeBytes,
                              bool compressed) override {
        fail();
        preparedCalls.push_back({position, grainSizeBytes});
        lastPreparedWasCompressed = compressed;
        const P<CVMDKDataPreparer> preparer(
            new CVMDKDataPreparer(grainSizeBytes / vmdkSectorSize, compressed, 1));
        const P<Bytes> contents(new Bytes(contentsAt(position, grainSizeBytes)));
        const P<Bytes> aux(new Bytes);
        out = *preparer->prepareGrainData(contents.get(), position / grainSizeBytes, aux.get());
    }
    bool isGrainWritten(int64 position) override {
        fail();
        writtenCalls.push_back(position);
        return writtenPositions.contains(position);
    }

    TArray<Call> dataCalls;
    TArray<Call> preparedCalls;
    TArray<int64> writtenCalls;
    bool lastPreparedWasCompressed = false;
    /// Where isGrainWritten() says yes.
    std::set<int64> writtenPositions;
    /// Makes every call fail with CIOError 1 "Parent fails".
    bool fails = false;

private:
    void fail() const {
        if (fails)
            throw CIOError(CIOError::Code_ReadFailed, "Parent fails");
    }
};

} // namespace tessel::test
