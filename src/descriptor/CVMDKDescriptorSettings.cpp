// The typed settings of CVMDKDescriptor: which key, how it is written, where it is inserted.

#include "lum/TextFunctions.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

namespace {

constexpr bool quoted = true;
constexpr bool unquoted = false;
constexpr bool inHeader = true;
constexpr bool atEnd = false;

constexpr unsigned int noContentID = 0xFFFFFFFF;

} // namespace

TBuffer<unsigned char> CVMDKDescriptor::getBytes(const String& name) const {
    TBuffer<unsigned char> bytes;
    hexDecode(getValue(name), bytes);
    return bytes;
}

void CVMDKDescriptor::setBytes(const String& name, const TBuffer<unsigned char>& bytes) {
    setValue(name, hexEncode(bytes, false), unquoted, inHeader);
}

int CVMDKDescriptor::getVersion() const {
    return static_cast<int>(parseInt64(getValue("version"), false));
}
void CVMDKDescriptor::setVersion(int version) {
    setValue("version", toDecimal(version), unquoted, inHeader);
}

unsigned int CVMDKDescriptor::getContentID() const {
    return static_cast<unsigned int>(parseHexInt64(getValue("CID"), false));
}
void CVMDKDescriptor::setContentID(unsigned int id) {
    setValue("CID", toHexString(id), unquoted, inHeader);
}

unsigned int CVMDKDescriptor::getParentContentID() const {
    String value;
    if (!tryGetValue("parentCID", value))
        return noContentID;
    return static_cast<unsigned int>(parseHexInt64(value, true));
}
void CVMDKDescriptor::setParentContentID(unsigned int id) {
    setValue("parentCID", toHexString(id), unquoted, inHeader);
}

String CVMDKDescriptor::getCreateType() const {
    return getValue("createType");
}
void CVMDKDescriptor::setCreateType(const String& type) {
    setValue("createType", type, quoted, inHeader);
}

String CVMDKDescriptor::getParentFileNameHint() const {
    return getValue("parentFileNameHint");
}
bool CVMDKDescriptor::tryGetParentFileNameHint(String& hint) const {
    return tryGetValue("parentFileNameHint", hint);
}
void CVMDKDescriptor::setParentFileNameHint(const String& hint) {
    setValue("parentFileNameHint", hint, quoted, inHeader);
}

String CVMDKDescriptor::getAdapterType() const {
    return getValue("ddb.adapterType");
}
void CVMDKDescriptor::setAdapterType(const String& type) {
    setValue("ddb.adapterType", type, quoted, atEnd);
}

int64 CVMDKDescriptor::getGeometryCylinders() const {
    return parseInt64(getValue("ddb.geometry.cylinders"), false);
}
void CVMDKDescriptor::setGeometryCylinders(int64 cylinders) {
    setValue("ddb.geometry.cylinders", toDecimal(cylinders), quoted, atEnd);
}

int64 CVMDKDescriptor::getGeometryHeads() const {
    return parseInt64(getValue("ddb.geometry.heads"), false);
}
void CVMDKDescriptor::setGeometryHeads(int64 heads) {
    setValue("ddb.geometry.heads", toDecimal(heads), quoted, atEnd);
}

int64 CVMDKDescriptor::getGeometrySectors() const {
    return parseInt64(getValue("ddb.geometry.sectors"), false);
}
void CVMDKDescriptor::setGeometrySectors(int64 sectors) {
    setValue("ddb.geometry.sectors", toDecimal(sectors), quoted, atEnd);
}

bool CVMDKDescriptor::getLumCreateExtentFilesOnDemand() const {
    String value;
    return tryGetValue("lumCreateExtentFilesOnDemand", value) && parseBool(value);
}
void CVMDKDescriptor::setLumCreateExtentFilesOnDemand(bool onDemand) {
    setValue("lumCreateExtentFilesOnDemand", toText(onDemand), quoted, inHeader);
}

String CVMDKDescriptor::getLumEncryptionAlgorithm() const {
    String value;
    tryGetValue("lumEncAlg", value);
    return value;
}
void CVMDKDescriptor::setLumEncryptionAlgorithm(const String& algorithm) {
    setValue("lumEncAlg", algorithm, unquoted, inHeader);
}

String CVMDKDescriptor::getLumEncryptionKeyHashAlgorithm() const {
    return getValue("lumEncKeyHashAlg");
}
void CVMDKDescriptor::setLumEncryptionKeyHashAlgorithm(const String& algorithm) {
    setValue("lumEncKeyHashAlg", algorithm, unquoted, inHeader);
}

String CVMDKDescriptor::getLumEncryptionKeyDerivationAlgorithm() const {
    return getValue("lumEncKeyDerivAlg");
}
void CVMDKDescriptor::setLumEncryptionKeyDerivationAlgorithm(const String& algorithm) {
    setValue("lumEncKeyDerivAlg", algorithm, unquoted, inHeader);
}

TBuffer<unsigned char> CVMDKDescriptor::getLumEncryptionIV() const {
    return getBytes("lumEncIV");
}
void CVMDKDescriptor::setLumEncryptionIV(const TBuffer<unsigned char>& iv) {
    setBytes("lumEncIV", iv);
}

TBuffer<unsigned char> CVMDKDescriptor::getLumEncryptedEncryptionKey() const {
    return getBytes("lumEncEncKey");
}
void CVMDKDescriptor::setLumEncryptedEncryptionKey(const TBuffer<unsigned char>& key) {
    setBytes("lumEncEncKey", key);
}

TBuffer<unsigned char> CVMDKDescriptor::getLumEncryptionKeyHash() const {
    return getBytes("lumEncKeyHash");
}
void CVMDKDescriptor::setLumEncryptionKeyHash(const TBuffer<unsigned char>& hash) {
    setBytes("lumEncKeyHash", hash);
}

TBuffer<unsigned char> CVMDKDescriptor::getLumEncryptionKeyDerivationSalt() const {
    return getBytes("lumEncKeyDerivSalt");
}
void CVMDKDescriptor::setLumEncryptionKeyDerivationSalt(const TBuffer<unsigned char>& salt) {
    setBytes("lumEncKeyDerivSalt", salt);
}

} // namespace tessel
