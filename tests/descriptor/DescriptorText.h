#pragma once

#include "Bytes.h"
#include "Printing.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel::test {

/// The descriptor that a text in UTF-8 describes.
inline P<CVMDKDescriptor> parseDescriptor(std::string_view text) {
    return new CVMDKDescriptor(bytesOf(text));
}

/// The lines as they would be written, in UTF-8.
inline std::string textOf(const CVMDKDescriptor& descriptor) {
    return descriptor.toString().toUTF8();
}

/// What `text` has become when it was read and is written again.
inline std::string roundTrip(std::string_view text) {
    return textOf(*parseDescriptor(text));
}

/// A descriptor as it usually looks: settings, extents, settings of the disk data base.
constexpr const char* usualText = "# Disk DescriptorFile\n"
                                  "version=1\n"
                                  "CID=12345678\n"
                                  "parentCID=ffffffff\n"
                                  "createType=\"twoGbMaxExtentSparse\"\n"
                                  "\n"
                                  "# Extent description\n"
                                  "RW 4192256 SPARSE \"disk-s00000.vmdk\"\n"
                                  "RW 2048 SPARSE \"disk-s00001.vmdk\"\n"
                                  "\n"
                                  "# The Disk Data Base\n"
                                  "#DDB\n"
                                  "ddb.adapterType = \"lsilogic\"\n"
                                  "ddb.geometry.cylinders = \"261\"\n";

} // namespace tessel::test
