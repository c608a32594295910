#pragma once

#include "lum/IIOStream.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

/// Finds the descriptor of a disk's main file, embedded in a sparse extent or a text file of its own,
/// and writes it back into the same area, whose size never changes. Holds the stream.
class TESSEL_EXPORT CVMDKDescriptorAccessor : public CBase {
public:
    /// Descriptors above this many bytes are refused.
    static constexpr int64 maxDescriptorSize = 5242880;
    /// So are those of more lines: each line takes memory of its own, however short it is. Within both bounds
    /// a parsed descriptor takes up to 24 MiB, and for a moment four times its longest line.
    static constexpr int64 maxLineCount = 131072;

    /// Reads and parses the descriptor; the stream's position is the same afterwards. Writing needs
    /// `access` 3.
    /// Throws: CIOError 6 for a header version other than 1 to 3, CIOError 5 when there is no
    /// descriptor or it is too big or has too many lines ("uri"); what the header and the stream throw, the
    /// position being unspecified then.
    CVMDKDescriptorAccessor(IIOStream* stream, IIOStream::Access access);

    /// The descriptor itself: what is changed in it is what storeDescriptor() writes.
    P<CVMDKDescriptor> getDescriptor() const { return m_descriptor; }
    /// True when the file is a sparse extent that holds the descriptor, false when it is text.
    bool getEmbeddedInSparseExtentFile() const noexcept { return m_embedded; }
    /// Where, in bytes, the area that holds the descriptor begins; always at a sector.
    int64 getDescriptorAreaPosition() const noexcept { return m_descriptorPosition; }
    /// Bytes of the area that holds the descriptor.
    int64 getDescriptorAreaSize() const noexcept { return m_descriptorSize; }

    /// The main file, as it was given to the constructor.
    P<IIOStream> getStream() const { return m_stream; }

    /// Parses the text of a descriptor that is within the bounds on lines.
    /// Throws: CIOError 5 ("uri", "lines") otherwise.
    static P<CVMDKDescriptor> parse(const TBuffer<unsigned char>& text, const CURI& uri);

    /// Gives the descriptor in memory a new random content ID, which is neither the old one nor 0 nor
    /// 0xFFFFFFFF, and returns it.
    /// Throws: CError without write access, or when the descriptor has no "CID".
    unsigned int changeContentID();

    /// Writes the descriptor into its area; the stream's position is the same afterwards.
    /// Throws: CError without write access or when the text is longer than the area, which then stays
    /// as it was; the stream's errors.
    void storeDescriptor(bool flush);

private:
    void verifyHaveWriteAccess(const char* method) const;

    P<IIOStream> m_stream;
    IIOStream::Access m_access;
    bool m_embedded = false;
    int64 m_descriptorPosition = 0;
    int64 m_descriptorSize = 0;
    P<CVMDKDescriptor> m_descriptor;
};

} // namespace tessel
