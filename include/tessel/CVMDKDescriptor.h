#pragma once

#include "lum/IOutStream.h"
#include "tessel/CVMDKDescriptorEntry.h"
#include "tessel/CVMDKExtentInfo.h"

#include <functional>

namespace tessel {

/// The text that describes a disk: settings as name=value lines, extent lines, comments and whatever
/// else stands there, in order. Lines that are not touched stay as they are.
///
/// Names are looked up without regard to case; of several entries of one name the first counts. Copies
/// are deep. Used by one thread at a time.
class TESSEL_EXPORT CVMDKDescriptor : public CBase {
public:
    /// A setting.
    class TESSEL_EXPORT CNameValueEntry : public CVMDKDescriptorEntry {
    public:
        /// `value` without the quotes in which it is written when `quoted` is set.
        CNameValueEntry(const String& name, const String& value, bool quoted);

        /// The name as it is written.
        String getName() const;
        /// The value without its quotes.
        String getValue() const;
        /// Changes the value; quotes stay or stay away.
        void setValue(const String& value);
        /// Whether the value is written in quotes.
        bool getQuoted() const noexcept { return m_quoted; }
        /// True when the name is this one; `lowerName` is given in lower case.
        bool hasName(const String& lowerName) const;

        /// Blanks stand around the "=" of names that begin with "ddb.".
        String toString() const override;
        P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    private:
        friend class CVMDKDescriptor;

        CNameValueEntry(const CNameValueEntry& other) = default;

        /// Name and value, packed: there may be many lines.
        std::string m_text;
        uint32 m_nameSize; ///< bytes
        bool m_quoted;
    };

    /// A line that is kept as it is.
    class TESSEL_EXPORT CGenericEntry : public CVMDKDescriptorEntry {
    public:
        /// `line` without its line feed.
        explicit CGenericEntry(const String& line);

        String toString() const override;
        P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    private:
        friend class CVMDKDescriptor;

        CGenericEntry(const CGenericEntry& other) = default;

        std::string m_line; ///< packed
    };

    /// No lines.
    CVMDKDescriptor();
    /// Parses text that ends at the first zero byte or the end of the buffer. Any content can be
    /// parsed. The text is UTF-8 unless its "encoding" says otherwise; an encoding that is unknown, or
    /// bytes that are no UTF-8, make it Latin-1, with a warning. Takes about 100 bytes of memory for a line
    /// and 1 (in Latin-1 up to 2) for a byte of text; nobody but the caller bounds their number.
    explicit CVMDKDescriptor(const TBuffer<unsigned char>& data);
    /// A deep copy.
    CVMDKDescriptor(const CVMDKDescriptor& other);
    /// A deep copy in place of what this held.
    CVMDKDescriptor& operator=(const CVMDKDescriptor& other);

    /// True, with the value of the setting; or false, with the empty string.
    bool tryGetValue(const String& name, String& value) const;
    /// Throws: CError "VMDK descriptor value '…' not found."
    String getValue(const String& name) const;
    /// True when there is a setting of this name.
    bool hasValue(const String& name) const;
    /// Gives an existing setting another value: its spelling, quotes and place stay. A new one is
    /// inserted behind the settings that stand before the extent lines (`insertInHeader`), or at the
    /// end.
    /// Throws: CInvalidArgError when name or value holds a line feed, carriage return or NUL.
    void setValue(const String& name, const String& value, bool quoted, bool insertInHeader);
    /// Declares the encoding that store() writes.
    void setEncodingUTF8();
    /// Takes out the setting of this name (the first); false when there is none.
    bool removeValue(const String& name);

    /// Inserts an extent line behind the first run of extent lines, or at the end without one. The
    /// entry is kept. Throws: CInvalidArgError as setValue.
    void addExtentEntry(CVMDKExtentInfo* extent);
    /// Appends the extent lines, in order, to `extents`.
    void getExtentEntries(TArray<P<CVMDKExtentInfo>>& extents) const;
    /// Gives every extent, in order, the file reference that `rename` returns; its other values stay.
    /// Throws: CInvalidArgError for a reference that would be read as another one, nothing having changed.
    void renameExtents(const std::function<String(const CVMDKExtentInfo&)>& rename);
    /// Appends the lines that are neither settings nor extents, in order, to `lines`.
    void getGenericLines(TArray<String>& lines) const;
    /// Adds every line that reads as a setting to `lines`, as it would be written, in their order.
    void getSettingLines(TArray<String>& lines) const;
    /// Calls `visit` with every line that is no extent's, as it would be written, in their order.
    void visitOtherLines(const std::function<void(const String&)>& visit) const;
    /// Inserts a line as it is; place as with setValue. Throws: CInvalidArgError as setValue.
    void addGenericLine(const String& line, bool insertInHeader);

    /// All lines, each ended by a line feed.
    String toString() const;
    /// Writes the descriptor, with its encoding declared, in exactly `size` bytes, filled up with bytes
    /// from the start of `padding`.
    /// Throws: CError when the text is longer than that, or `padding` shorter than what is to be filled;
    /// nothing is written then, but the encoding may already be declared. The stream's errors.
    void store(IOutStream& out, int size, const TBuffer<unsigned char>& padding);

    // Settings by name. A getter without "otherwise" throws as getValue when the setting is missing.
    // Numbers that cannot be read count as 0 unless noted.

    /// "version": of the descriptor's format, 1.
    int getVersion() const;
    /// Sets "version".
    void setVersion(int version);
    /// "CID": changes with the disk's contents.
    unsigned int getContentID() const;
    /// Sets "CID".
    void setContentID(unsigned int id);
    /// "parentCID", the content ID of the parent when this child was made; otherwise 0xFFFFFFFF.
    /// Throws: CError for text that is no hexadecimal number.
    unsigned int getParentContentID() const;
    /// Sets "parentCID".
    void setParentContentID(unsigned int id);
    /// "createType": the disk's kind, "monolithicSparse" for example.
    String getCreateType() const;
    /// Sets "createType".
    void setCreateType(const String& type);
    /// The file reference of the parent.
    String getParentFileNameHint() const;
    /// The same; false, with the empty text, where there is none.
    bool tryGetParentFileNameHint(String& hint) const;
    /// Sets the file reference of the parent.
    void setParentFileNameHint(const String& hint);
    /// "ddb.adapterType": what a virtual machine should connect the disk to.
    String getAdapterType() const;
    /// Sets "ddb.adapterType".
    void setAdapterType(const String& type);
    /// "ddb.geometry.cylinders". Nothing in the library depends on the geometry.
    int64 getGeometryCylinders() const;
    /// Sets "ddb.geometry.cylinders".
    void setGeometryCylinders(int64 cylinders);
    /// "ddb.geometry.heads".
    int64 getGeometryHeads() const;
    /// Sets "ddb.geometry.heads".
    void setGeometryHeads(int64 heads);
    /// "ddb.geometry.sectors", a track's.
    int64 getGeometrySectors() const;
    /// Sets "ddb.geometry.sectors".
    void setGeometrySectors(int64 sectors);

    // The library's own settings.

    /// Whether missing extent files are made on first write; otherwise false.
    bool getLumCreateExtentFilesOnDemand() const;
    /// Sets "lumCreateExtentFilesOnDemand".
    void setLumCreateExtentFilesOnDemand(bool onDemand);
    /// "aes256cbc" for encrypted disks; otherwise empty.
    String getLumEncryptionAlgorithm() const;
    /// Sets "lumEncAlg".
    void setLumEncryptionAlgorithm(const String& algorithm);
    /// "lumEncKeyHashAlg": "sha256".
    String getLumEncryptionKeyHashAlgorithm() const;
    /// Sets "lumEncKeyHashAlg".
    void setLumEncryptionKeyHashAlgorithm(const String& algorithm);
    /// "lumEncKeyDerivAlg": see CVMDKDisk::deriveEncryptKey.
    String getLumEncryptionKeyDerivationAlgorithm() const;
    /// Sets "lumEncKeyDerivAlg".
    void setLumEncryptionKeyDerivationAlgorithm(const String& algorithm);
    // Bytes, written in hexadecimal. The getters throw CError for text that is none.
    /// "lumEncIV": the disk's initialisation vector.
    TBuffer<unsigned char> getLumEncryptionIV() const;
    /// Sets "lumEncIV".
    void setLumEncryptionIV(const TBuffer<unsigned char>& iv);
    /// "lumEncEncKey": the data key as the password's key wraps it.
    TBuffer<unsigned char> getLumEncryptedEncryptionKey() const;
    /// Sets "lumEncEncKey".
    void setLumEncryptedEncryptionKey(const TBuffer<unsigned char>& key);
    /// "lumEncKeyHash": the SHA-256 (FIPS 180-4) of the data key.
    TBuffer<unsigned char> getLumEncryptionKeyHash() const;
    /// Sets "lumEncKeyHash".
    void setLumEncryptionKeyHash(const TBuffer<unsigned char>& hash);
    /// "lumEncKeyDerivSalt": the salt of the key derivation.
    TBuffer<unsigned char> getLumEncryptionKeyDerivationSalt() const;
    /// Sets "lumEncKeyDerivSalt".
    void setLumEncryptionKeyDerivationSalt(const TBuffer<unsigned char>& salt);

protected:
    /// The first setting of this name, or null.
    P<CNameValueEntry> findValueEntry(const String& name) const;

private:
    static P<CVMDKDescriptorEntry> parseLine(std::string&& line);
    template <class Pack>
    void parse(std::string_view text, Pack pack);
    void insertEntry(CVMDKDescriptorEntry* entry, bool insertInHeader);
    int findEndOfFirstExtentRun() const;
    TBuffer<unsigned char> getBytes(const String& name) const;
    void setBytes(const String& name, const TBuffer<unsigned char>& bytes);

    TArray<P<CVMDKDescriptorEntry>> m_entries;
    /// Where new settings of the header go.
    int m_headerInsertionIndex = 0;
    /// Position behind the first run of extent lines, kept while only lines are added; -1: not known.
    int m_extentRunEnd = -1;
};

} // namespace tessel
