// A compressed grain record: hostile ones fail cleanly, those that we make read back.

#include "FuzzSupport.h"

using namespace fuzz;

namespace {

using Bytes = TBuffer<unsigned char>;

constexpr int64 grainSectors = 16;

P<Bytes> newBuffer(const Bytes& contents) {
    return new Bytes(contents);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    static const P<CVMDKDataPreparer> fast(new CVMDKDataPreparer(grainSectors, true, 1));
    static const P<CVMDKDataPreparer> stored(new CVMDKDataPreparer(grainSectors, true, 0));
    const Bytes input(data, static_cast<int64>(size));

    for (const auto& preparer : {fast, stored}) {
        const P<Bytes> record = newBuffer(input);
        const P<Bytes> plain(new Bytes);
        if (mayFail([&] { preparer->unprepareGrainData(record.get(), plain.get()); }))
            REQUIRE(plain->getUsed() == grainSectors * vmdkSectorSize);

        const P<Bytes> source = newBuffer(input);
        const P<Bytes> made(new Bytes);
        if (!mayFail([&] { preparer->prepareGrainData(source.get(), 7, made.get()); }))
            continue;
        REQUIRE(made->getUsed() % vmdkSectorSize == 0);
        REQUIRE(made->getUsed() <= preparer->getWorstCaseGrainSizeSectors() * vmdkSectorSize);
        preparer->unprepareGrainData(made.get(), plain.get());
        source->setUsed(0);
        source->append(data, static_cast<int64>(size));
        Bytes expected(grainSectors * vmdkSectorSize);
        std::copy_n(data, size, expected.getData());
        REQUIRE(*plain == expected);
    }
    return 0;
}
