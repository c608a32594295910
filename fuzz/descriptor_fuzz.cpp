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

    // Writing settles the text: from the second time on writing and reading change nothing. (An extent line
    // that begins with a blank may come back as a setting, once.)
    TBuffer<unsigned char> stored;
    const TBuffer<unsigned char> zeros(1);
    const auto storeAndLoad = [&](CVMDKDescriptor& what) {
        what.setEncodingUTF8();
        const auto length = static_cast<int>(what.toString().toUTF8().size());
        stored.setUsed(0);
        what.store(*P<CBufferStream>(new CBufferStream(&stored, 2.0)), length, zeros);
        return P<CVMDKDescriptor>(new CVMDKDescriptor(stored));
    };
    const P<CVMDKDescriptor> settled = storeAndLoad(*storeAndLoad(*descriptor));
    REQUIRE(storeAndLoad(*settled)->toString() == settled->toString());
    const CVMDKDescriptor copy(*settled);
    REQUIRE(copy.toString() == settled->toString());
    return 0;
}
