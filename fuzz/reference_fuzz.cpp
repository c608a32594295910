// Extent lines and the file references in them.

#include "FuzzSupport.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    const String text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (const P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(text)) {
        const P<CVMDKExtentInfo> again = CVMDKExtentInfo::tryParseDescriptorLine(extent->toString());
        if (extent->getOffset() != -1) {
            REQUIRE(again && again->toString() == extent->toString());
            REQUIRE(again->getFilename() == extent->getFilename());
        }
    }
    for (const char* base : {"file:///vm/disks", "file:///C:/vm", "file://server/share/vm", "mem:/a", ""}) {
        mayFail([&] {
            const CURI uri = vmdkFileReferenceToURI(CURI(String(base)), text);
            REQUIRE(uri.toNormalized() == uri);
            REQUIRE(CURI(uri.toString(false)).toNormalized() == uri);
            uri.toString(true);
            mayFail([&] {
                const CURI back = (uri.getParent() << uri.getName()).toNormalized();
                // Elsewhere an escape may mean something else than its character.
                const bool isFile = uri.getScheme() == "file" && !uri.getQuery() && !uri.getFragment();
                // An escape that is no UTF-8 has no character to be shown as.
                const String name = uri.getName();
                REQUIRE(back == uri || name.isEmpty() || name.Contains("%") || !isFile);
            });
            mayFail([&] { uriToNativePath(uri); });
        });
    }
    mayFail([&] { String::fromUTF8(data, static_cast<int64>(size)); });
    return 0;
}
