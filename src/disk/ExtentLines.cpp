#include "disk/ExtentLines.h"

#include "lum/CIOError.h"
#include "tessel/VMDKFileReference.h"

namespace tessel {

namespace {

/// The first words of a line, however they are set apart.
TArray<String> splitWords(const String& line, std::size_t most) {
    TArray<String> words;
    String word;
    for (int i = 0; i <= line.getLength() && words.size() < most; ++i) {
        const wchar_t c = i < line.getLength() ? line[i] : L' ';
        if (c != L' ' && c != L'\t' && c != L'\r') {
            word += c;
        } else if (!word.isEmpty()) {
            words.push_back(word);
            word = String();
        }
    }
    return words;
}

/// With or without a sign, of any size.
bool isNumber(const String& text) {
    const String digits = text.StartsWith("-") || text.StartsWith("+") ? text.Mid(1) : text;
    for (int i = 0; i < digits.getLength(); ++i)
        if (digits[i] < L'0' || digits[i] > L'9')
            return false;
    return !digits.isEmpty();
}

} // namespace

void verifyCreateType(const CVMDKDescriptor& descriptor, const CProps& props) {
    const String type = descriptor.getCreateType();
    if (type != "twoGbMaxExtentSparse" && type != "streamOptimized" && type != "monolithicSparse")
        throw CIOError(CIOError::Code_BadFormat, "VMDK disk has an unsupported create type: '" + type + "'.",
                       props);
}

// An extent line of a kind that is not understood stays in the descriptor as text, or as a setting where its
// file's name holds an equals sign. To pass over it would shift everything behind it.
void verifyNoUnknownExtentLines(const CVMDKDescriptor& descriptor, const CProps& props) {
    descriptor.visitOtherLines([&](const String& line) {
        const TArray<String> words = splitWords(line, 3);
        if (words.size() < 2 || !isNumber(words[1]))
            return;
        const String access = words[0].Lower();
        if (access == "rw" || access == "rdonly" || access == "noaccess")
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an unsupported extent type: '" +
                               (words.size() > 2 ? words[2] : String()) + "'.",
                           props);
    });
}

void placeExtents(const TArray<P<CVMDKExtentInfo>>& extents, const CURI& folder, const CProps& props,
                  const std::function<void(UExtentLine&&)>& visit) {
    constexpr int64 maxSizeSectors = INT64_MAX / vmdkSectorSize;
    if (extents.size() > maxExtentCount)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK disk has too many extents: " + toDecimal(extents.size()) +
                           " (allowed: " + toDecimal(maxExtentCount) + ").",
                       CProps(props).add("extents", extents.size()));
    bool isEmpty = true;
    int64 start = 0;
    for (const auto& extent : extents) {
        if (extent->getType() != "SPARSE")
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an unsupported extent type: '" + extent->getType() + "'.", props);
        if (!extent->isSizeKnown())
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an extent whose size is no number (file: '" +
                               extent->getFilename() + "').",
                           props);
        const int64 size = extent->getSizeSectors();
        if (size < 0 || size > maxSizeSectors - start)
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an extent of an invalid size: " + toDecimal(size) +
                               " sectors (allowed: 0 to " + toDecimal(maxSizeSectors - start) + ").",
                           CProps(props).add("sizeSectors", size));
        if (size == 0)
            continue;
        visit({vmdkFileReferenceToURI(folder, extent->getFilename()), start, size});
        isEmpty = false;
        start += size;
    }
    if (isEmpty)
        throw CIOError(CIOError::Code_BadFormat, "VMDK disk has no extents.", props);
}

} // namespace tessel
