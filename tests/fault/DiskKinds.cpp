#include "DiskKinds.h"

#include "sigil/CCipher_AES256CBC.h"

#include <algorithm>
#include <ostream>

namespace tessel::test {

void PrintTo(const UDiskKind& kind, std::ostream* out) {
    *out << kind.name;
}

static const UDiskKind diskKinds[] = {
    {"Plain", {}},
    {"Compressed", {.compressed = true, .level = 1}},
    {"Encrypted", {.password = "secret"}},
    {"EncryptedCompressed", {.password = "secret", .compressed = true, .level = 1}},
    {"Child", {}, true},
    {"CompressedChild", {.compressed = true, .level = 1}, true},
    {"Split", {.limit = 3 * MiB + 2 * 65536}},
    {"SplitOnDemand", {.limit = 3 * MiB + 2 * 65536, .onDemand = true}},
    {"EncryptedOnDemand", {.password = "secret", .limit = 3 * MiB + 2 * 65536, .onDemand = true}},
    {"ChildOfManyExtents", {.limit = 512 * KiB}, true},
    {"SmallGrainsOnDemand", {}, false, 16},
    {"SmallCompressedGrainsOnDemand", {.compressed = true, .level = 1}, false, 32},
};

const UDiskKind& getDiskKind(const std::string& name) {
    return *std::find_if(std::begin(diskKinds), std::end(diskKinds),
                         [&](const UDiskKind& kind) { return kind.name == name; });
}

void DiskKindTest::makeFiles(const UDiskKind& kind) {
    m_kind = &kind;
    useFiles(new CMemoryFileSystem);
    if (kind.isChild)
        create({.password = kind.options.password,
                .compressed = kind.options.compressed,
                .level = kind.options.level},
               "parent.vmdk");
    if (kind.grainSizeSectors > 0)
        makeSmallGrainedDisk();
    else
        makeDisk();
    choosePlaces(*openDisk(forReading));
    writePlaces();
    m_contentID = openDisk(forReading)->getDescriptor()->getContentID();
    m_savedFiles.clear();
    for (const std::string& name : listFiles())
        m_savedFiles[name] = getFile(String::fromUTF8(name));
    ASSERT_EQ(takeLog().size(), 0U);
}

void DiskKindTest::makeDisk() {
    DiskOptions options = kind().options;
    if (kind().isChild) {
        // The parent gets its data first: its content ID is the one that the child knows.
        choosePlaces(*open(forReading, "parent.vmdk"));
        const P<CVMDKDisk> parent = open(forWriting, "parent.vmdk");
        for (const Place place : {placeFresh, placeMoved, placePrepared, placeInherited, placeLast})
            writeAt(*parent, m_places[place].position, randomData(1000 + place));
        parent->flushChanges();
        options.parentPath = "parent.vmdk";
        options.parentID = parent->getDescriptor()->getContentID();
    }
    create(options);
    if (kind().isEncrypted())
        editDescriptor([this](CVMDKDescriptor& descriptor) { quickenKeyDerivation(descriptor); });
}

// Thousands of openings would else derive keys most of the time.
void DiskKindTest::quickenKeyDerivation(CVMDKDescriptor& descriptor) const {
    const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    const TBuffer<unsigned char> iv = descriptor.getLumEncryptionIV();
    const auto deriveKey = [&] {
        TCryptBuffer<unsigned char> key;
        CVMDKDisk::deriveEncryptKey(key, cipher->getKeySizeBytes(), kind().options.password,
                                    descriptor.getLumEncryptionKeyDerivationAlgorithm(),
                                    descriptor.getLumEncryptionKeyDerivationSalt());
        return key;
    };
    const TBuffer<unsigned char> wrapped = descriptor.getLumEncryptedEncryptionKey();
    TCryptBuffer<unsigned char> dataKey;
    cipher->decrypt(wrapped.getData(), static_cast<int>(wrapped.getUsed()), deriveKey(), iv, dataKey, false);
    descriptor.setLumEncryptionKeyDerivationAlgorithm("pkcs5-pbkdf2-hmac-sha1:1000");
    TBuffer<unsigned char> wrappedAgain;
    cipher->encrypt(dataKey.getData(), static_cast<int>(dataKey.getUsed()), deriveKey(), iv, wrappedAgain,
                    false);
    descriptor.setLumEncryptedEncryptionKey(wrappedAgain);
}

void DiskKindTest::makeSmallGrainedDisk() {
    const int64 sizes[] = {3 * MiB, 3 * MiB, 2 * MiB};
    std::vector<std::string> lines = {"lumCreateExtentFilesOnDemand=\"true\""};
    for (int i = 0; i < 3; ++i)
        lines.push_back("RW " + std::to_string(sizes[i] / 512) + " SPARSE \"disk-s0000" + std::to_string(i) +
                        ".vmdk\"");
    putSplitDescriptor(lines);
    putExtent("disk-s00000.vmdk", sizes[0] / 512 / kind().grainSizeSectors, kind().grainSizeSectors,
              kind().options.compressed);
}

void DiskKindTest::choosePlaces(CVMDKDisk& disk) {
    m_grainSize = disk.getGrainSizeBytes();
    m_randomData.clear();
    std::vector<int64> starts;
    for (const auto& [key, value] : disk.getExtentMap())
        starts.push_back(key.startSector * 512);
    const int64 half = disk.getSizeBytes() / 2 / m_grainSize * m_grainSize;
    m_places.assign(placeCount, {});
    for (int place = 0; place < placeFar; ++place)
        m_places[static_cast<std::size_t>(place)].position = place * m_grainSize;
    m_places[placeFar].position = starts.size() > 1 ? starts[1] + m_grainSize : half;
    m_places[placeFarFresh].position = starts.size() > 1 ? starts.back() : half + m_grainSize;
    m_places[placeLast].position = disk.getSizeBytes() - m_grainSize;
}

void DiskKindTest::writePlaces() {
    const P<CVMDKDisk> disk = openDisk(forWriting);
    for (int i = 0; i < placeCount; ++i) {
        UPlace& place = m_places[static_cast<std::size_t>(i)];
        const bool written = i == placeMoved || i == placeInPlace || i == placeNeighbour ||
                             i == placePartly || (i == placeFar && !kind().isOnDemand());
        if (written) {
            const auto seed = static_cast<unsigned>(i);
            writeAt(*disk, place.position, i == placeMoved ? compressibleData(seed) : randomData(seed));
            place.hasSlot = true;
        }
    }
    disk->flushChanges();
    for (UPlace& place : m_places)
        place.contents = readAt(*disk, place.position, m_grainSize);
}

void DiskKindTest::restoreFiles() {
    useFiles(new CMemoryFileSystem);
    for (const auto& [name, contents] : m_savedFiles)
        putFile(String::fromUTF8(name), contents);
}

void DiskKindTest::useFiles(const P<CMemoryFileSystem>& files) {
    m_memory = files;
    m_files = m_memory;
}

Bytes DiskKindTest::compressibleData(unsigned seed) const {
    Bytes bytes(static_cast<std::size_t>(m_grainSize));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(1 + (i / 16 + seed) % 200);
    return bytes;
}

const Bytes& DiskKindTest::randomData(unsigned seed) const {
    Bytes& data = m_randomData[seed];
    if (data.empty())
        data = randomBytes(seed, m_grainSize);
    return data;
}

void DiskKindTest::writePrepared(CVMDKDisk& disk, int64 position, const Bytes& grain) const {
    const P<TBuffer<unsigned char>> data(
        new TBuffer<unsigned char>(grain.data(), static_cast<int64>(grain.size())));
    const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
    disk.seek(position);
    disk.writePreparedGrainData(*disk.createDataPreparer()->prepareGrainData(data.get(), 0, aux.get()));
}

std::optional<Bytes> DiskKindTest::tryRead(CVMDKDisk& disk, int64 position) const {
    try {
        return readAt(disk, position, m_grainSize);
    } catch (const CError&) {
        return std::nullopt;
    }
}

bool DiskKindTest::mayBeCutRewrite(const std::optional<Bytes>& found,
                                   const std::vector<Bytes>& versions) const {
    if (!found)
        return kind().options.compressed;
    if (kind().options.compressed)
        return false; // a record is whole, or its checksum tells that it is not
    constexpr std::ptrdiff_t sector = 512;
    const std::ptrdiff_t spoiled = kind().isEncrypted() ? 16 : 0;
    for (std::ptrdiff_t start = 0; start < static_cast<std::ptrdiff_t>(found->size()); start += sector) {
        const bool known = std::any_of(versions.begin(), versions.end(), [&](const Bytes& version) {
            return std::equal(found->begin() + start + spoiled, found->begin() + start + sector,
                              version.begin() + start + spoiled);
        });
        if (!known)
            return false;
    }
    return true;
}

} // namespace tessel::test
