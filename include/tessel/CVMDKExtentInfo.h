#pragma once

#include "tessel/CVMDKDescriptorEntry.h"

namespace tessel {

/// A descriptor line that names one extent of the disk:
///
///   RW 4192256 SPARSE "disk-s00001.vmdk"
///
/// access, size in sectors, type, file reference, and an optional offset. Immutable.
class TESSEL_EXPORT CVMDKExtentInfo : public CVMDKDescriptorEntry {
public:
    /// `offset` -1 is none.
    CVMDKExtentInfo(const String& access, int64 sizeSectors, const String& type, const String& filename,
                    int64 offset);

    /// The extent that a line describes; null when it is no extent line. Never fails: a size or offset
    /// that is no number counts as 0.
    static P<CVMDKExtentInfo> tryParseDescriptorLine(const String& line);

    /// What may be done with the extent: "RW", "RDONLY" or "NOACCESS".
    String getAccess() const;
    /// Size of the extent in sectors.
    int64 getSizeSectors() const noexcept { return m_sizeSectors; }
    /// False for a parsed line whose size was no number: what lies behind it has no known place.
    bool isSizeKnown() const noexcept { return m_sizeKnown; }
    /// How the extent is stored; "SPARSE" is the one that the library opens.
    String getType() const;
    /// The file reference between the quotes, as written.
    String getFilename() const;
    /// The number behind the file reference; -1 when the line has none.
    int64 getOffset() const noexcept { return m_offset; }

    String toString() const override;
    P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

private:
    friend class CVMDKDescriptor;

    /// As tryParseDescriptorLine(), for packed text.
    static P<CVMDKExtentInfo> tryParsePackedLine(std::string_view line);
    void setTexts(std::string_view access, std::string_view type, std::string_view filename);
    CVMDKExtentInfo(const CVMDKExtentInfo& other) = default;

    /// Access, type and file reference, packed: a disk may have many extents.
    std::string m_text;
    uint32 m_accessSize = 0; ///< bytes
    uint32 m_typeSize = 0;
    int64 m_sizeSectors;
    int64 m_offset;
    bool m_sizeKnown = true;
};

} // namespace tessel
