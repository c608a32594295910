// Header, markers, directories and tables of an extent, as bytes of one file.

#include "FuzzSupport.h"

using namespace fuzz;

namespace {

const CURI uri(String("mem:///extent.vmdk"));

void loadHeader(const TBuffer<unsigned char>& bytes) {
    TBuffer<unsigned char> file(bytes);
    CDataInStream in(P<CBufferStream>(new CBufferStream(&file, 2.0)).get());
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    if (!mayFail([&] { header->load(in); }))
        return;
    TBuffer<unsigned char> stored;
    CDataOutStream out(P<CBufferStream>(new CBufferStream(&stored, 2.0)).get());
    header->store(out);
    REQUIRE(stored.getUsed() == vmdkSectorSize);
    CDataInStream back(P<CBufferStream>(new CBufferStream(&stored, 2.0)).get());
    header->load(back);
}

void openExtent(const TBuffer<unsigned char>& bytes, IIOStream::Access access) {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    writeFile(*files, uri, bytes);
    mayFail([&] {
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(40));
        const P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
            openVMDKFileStream(files.get(), uri, access).get(), access, 0, 1, cache.get(), nullptr, nullptr,
            nullptr, TCryptBuffer<unsigned char>(), TBuffer<unsigned char>()));
        const int64 grains = extent->getGrainDirectory().getGrainCount();
        for (const int64 grain : {int64{0}, int64{1}, grains / 2, grains - 1, grains}) {
            int64 position = 0;
            int64 slotSize = 0;
            mayFail([&] { extent->getGrainDirectory().getGrainInfo(grain, position, slotSize); });
            mayFail([&] {
                unsigned char sector[vmdkSectorSize];
                extent->seek(grain * extent->getGrainSizeSectors() * vmdkSectorSize);
                extent->read(sector, sizeof sector);
            });
        }
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    const TBuffer<unsigned char> bytes(data, static_cast<int64>(size));
    if (size >= vmdkSectorSize)
        for (const VMDKMarkerID type : {MarkerEndOfStream, MarkerGrainTable, MarkerSlotSizeDirectory}) {
            int64 value = -1;
            const bool isMarker = isVMDKMarker(data, type, &value);
            REQUIRE(isMarker || value == 0);
        }
    loadHeader(bytes);
    openExtent(bytes, IIOStream::Access_Read);
    openExtent(bytes, IIOStream::Access_ReadWrite);
    return 0;
}
