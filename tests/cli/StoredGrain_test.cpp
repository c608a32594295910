#include "StoredGrain.h"

#include "../foundation/SampleData.h"
#include "tessel/CVMDKDataPreparer.h"

#include <gtest/gtest.h>

#include <functional>

using namespace tessel;
using namespace tessel::cli;
using namespace tessel::test;

namespace {

constexpr int64 grainSectors = 128;
constexpr int grainBytes = 65536;
constexpr int64 most = 129 * 512;

P<TBuffer<unsigned char>> prepare(const Bytes& bytes, int level, int64 sectors = grainSectors) {
    const P<TBuffer<unsigned char>> plain(
        new TBuffer<unsigned char>(bytes.data(), static_cast<int64>(bytes.size())));
    const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(sectors, true, level));
    return preparer->prepareGrainData(plain.get(), 5, aux.get());
}

} // namespace

TEST(StoredGrainTest, DataOfEveryLevelMayPass) {
    for (int level = 0; level <= 9; ++level) {
        EXPECT_TRUE(mayPassAsStored(*prepare(makeText(grainBytes, 1), level), grainBytes, most)) << level;
        EXPECT_TRUE(mayPassAsStored(*prepare(makeRandom(grainBytes, 1), level), grainBytes, most)) << level;
        Bytes almostZeros = makeZeros(grainBytes);
        almostZeros[40000] = 1;
        EXPECT_TRUE(mayPassAsStored(*prepare(almostZeros, level), grainBytes, most)) << level;
    }
}

TEST(StoredGrainTest, ZerosOfEveryLevelMayNot) {
    for (int level = 0; level <= 9; ++level) {
        EXPECT_FALSE(mayPassAsStored(*prepare(makeZeros(grainBytes), level), grainBytes, most)) << level;
        EXPECT_FALSE(mayPassAsStored(*prepare(makeZeros(4096), level, 8), 4096, most)) << level;
    }
}

TEST(StoredGrainTest, WhatIsNoRecordMayNot) {
    using Spoil = std::function<void(TBuffer<unsigned char>&)>;
    const std::pair<const char*, Spoil> rows[] = {
        {"empty", [](auto& record) { record.setUsed(0); }},
        {"shorter than head and frame", [](auto& record) { record.setUsed(17); }},
        {"no length", [](auto& record) { std::fill_n(record.getData() + 8, 4, 0); }},
        {"length beyond the end", [](auto& record) { record[10] = 1; }},
        {"length without end", [](auto& record) { record[11] = 0xFF; }},
        {"no deflate stream", [](auto& record) { record[12] = 0x77; }},
        {"broken frame", [](auto& record) { record[13] ^= 1; }},
        {"dictionary", [](auto& record) { record[12] = 0x78, record[13] = 0x20; }},
        {"larger than allowed", [](auto& record) { record.setUsed(most + 512); }},
    };
    for (const auto& [name, spoil] : rows) {
        const P<TBuffer<unsigned char>> record = prepare(makeText(grainBytes, 1), 6);
        ASSERT_TRUE(mayPassAsStored(*record, grainBytes, most));
        spoil(*record);
        EXPECT_FALSE(mayPassAsStored(*record, grainBytes, most)) << name;
    }
}
