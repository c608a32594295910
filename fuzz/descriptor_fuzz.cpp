// A descriptor is text from anywhere: every text parses, and what is written reads back the same.

#include "FuzzSupport.h"

using namespace fuzz;

namespace {

void readSettings(const CVMDKDescriptor& descriptor) {
    mayFail([&] { descriptor.getVersion(); });
    mayFail([&] { descriptor.getContentID(); });
    mayFail([&] { descriptor.getParentContentID(); });
    mayFail([&] { descriptor.getCreateType(); });
    mayFail([&] { descriptor.getParentFileNameHint(); });
    mayFail([&] { descriptor.getGeometryCylinders(); });
    mayFail([&] { descriptor.getLumCreateExtentFilesOnDemand(); });
    mayFail([&] { descriptor.getLumEncryptionIV(); });
    mayFail([&] { descriptor.getLumEncryptionKeyHash(); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    const P<CVMDKDescriptor> descriptor(
        new CVMDKDescriptor(TBuffer<unsigned char>(data, static_cast<int64>(size))));
    readSettings(*descriptor);
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);

    // Writing settles the text: from then on writing and reading change nothing.
    TBuffer<unsigned char> stored;
    const TBuffer<unsigned char> zeros(1);
    const auto store = [&](CVMDKDescriptor& what) {
        what.setEncodingUTF8();
        const auto length = static_cast<int>(what.toString().toUTF8().size());
        stored.setUsed(0);
        what.store(*P<CBufferStream>(new CBufferStream(&stored, 2.0)), length, zeros);
        return what.toString();
    };
    const String text = store(*descriptor);
    CVMDKDescriptor again(stored);
    REQUIRE(store(again) == text);
    const CVMDKDescriptor copy(again);
    REQUIRE(copy.toString() == again.toString());
    return 0;
}
