// Writes the corpora that fuzzing starts from: small valid files of every kind.
//
//   tessel_make_seeds FOLDER      FOLDER is the corpus folder; existing seeds are replaced

#include "FuzzSupport.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace fuzz;

namespace {

using Bytes = std::string;

std::filesystem::path corpus;

void save(const std::string& surface, const std::string& name, const Bytes& bytes) {
    std::filesystem::create_directories(corpus / surface);
    std::ofstream(corpus / surface / name, std::ios::binary) << bytes;
}

Bytes readFile(IFileSystem& files, const CURI& uri) {
    const P<IIOStream> stream = files.openFile(uri, IIOStream::Access_Read);
    Bytes bytes(static_cast<std::size_t>(stream->getLength()), 0);
    stream->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

Bytes withLength(const Bytes& file) {
    Bytes out;
    for (int shift = 0; shift < 24; shift += 8)
        out += static_cast<char>(file.size() >> shift);
    return out + file;
}

P<CVMDKDescriptor> makeDescriptor(const char* createType, const std::vector<const char*>& extents,
                                  int64 sectors) {
    P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    descriptor->addGenericLine("# Disk DescriptorFile", true);
    descriptor->setVersion(1);
    descriptor->setContentID(0x12345678);
    descriptor->setParentContentID(0xFFFFFFFF);
    descriptor->setCreateType(createType);
    for (const char* name : extents)
        descriptor->addExtentEntry(new CVMDKExtentInfo("RW", sectors, "SPARSE", name, -1));
    descriptor->setAdapterType("lsilogic");
    return descriptor;
}

void fill(CVMDKDisk& disk) {
    const Bytes text = "some contents, some contents, some contents, and more";
    for (int64 position = 0; position < disk.getSizeBytes() - 100; position += disk.getGrainSizeBytes() * 2) {
        disk.seek(position);
        disk.write(text.data(), static_cast<int>(text.size()));
    }
    disk.flushChanges();
}

/// One file of small grains with its descriptor inside.
Bytes makeSingle(bool compressed, int64 grainSectors) {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    const CURI uri(String("mem:///disk.vmdk"));
    constexpr int64 grains = 6;
    const P<CVMDKDescriptor> descriptor = makeDescriptor(compressed ? "streamOptimized" : "monolithicSparse",
                                                         {"disk.vmdk"}, grains * grainSectors);
    createEmptyVMDKSparseExtentFile(files.get(), uri, compressed, grains, grainSectors,
                                    TBuffer<unsigned char>(4096), descriptor.get(), 2,
                                    TBuffer<unsigned char>());
    fill(
        *P<CVMDKDisk>(new CVMDKDisk(files.get(), uri, IIOStream::Access_ReadWrite, "", 1, nullptr, nullptr)));
    return readFile(*files, uri);
}

/// A descriptor file and two extents.
Bytes makeSplit() {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    const CURI folder(String("mem:///"));
    constexpr int64 grainSectors = 2;
    constexpr int64 grains = 4;
    const Bytes text = makeDescriptor("twoGbMaxExtentSparse", {"a.vmdk", "b.vmdk"}, grains * grainSectors)
                           ->toString()
                           .toUTF8() +
                       Bytes(64, 0);
    writeFile(*files, folder << String("disk.vmdk"),
              TBuffer<unsigned char>(reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int64>(text.size())));
    for (const char* name : {"a.vmdk", "b.vmdk"})
        createEmptyVMDKSparseExtentFile(files.get(), folder << String(name), false, grains, grainSectors,
                                        TBuffer<unsigned char>(4096), nullptr, 0, TBuffer<unsigned char>());
    fill(*P<CVMDKDisk>(new CVMDKDisk(files.get(), folder << String("disk.vmdk"), IIOStream::Access_ReadWrite,
                                     "", 1, nullptr, nullptr)));
    Bytes all;
    for (const char* name : {"disk.vmdk", "a.vmdk", "b.vmdk"})
        all += withLength(readFile(*files, folder << String(name)));
    return all;
}

Bytes makeRecord(int level) {
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(16, true, level));
    const Bytes text = "abcabcabcabcabc some text to compress some text to compress";
    const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(
        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int64>(text.size())));
    const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
    preparer->prepareGrainData(source.get(), 3, record.get());
    return Bytes(reinterpret_cast<const char*>(record->getData()),
                 static_cast<std::size_t>(record->getUsed()));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: tessel_make_seeds FOLDER\n");
        return 2;
    }
    corpus = argv[1];
    const Bytes plain = makeSingle(false, 1);
    const Bytes compressed = makeSingle(true, 2);
    const Bytes text =
        makeDescriptor("twoGbMaxExtentSparse", {"a b.vmdk", "a=b.vmdk"}, 64)->toString().toUTF8();
    save("descriptor", "valid", text);
    save("descriptor", "latin1", "encoding=\"ISO-8859-1\"\nname=\xE4\r\nRW 8 SPARSE \"\xE4.vmdk\" 0\n");
    save("descriptor", "settings",
         "CID=fffffffe\nparentCID=12345678\nlumEncAlg=aes256cbc\nlumEncIV=00ff\n"
         "lumCreateExtentFilesOnDemand=\"true\"\nddb.geometry.cylinders = \"12\"\n\n# end");
    save("reference", "line", "RW 4192256 SPARSE \"disk-s00001.vmdk\" 0");
    int number = 0;
    for (const char* reference :
         {"sub/disk.vmdk", "C:\\dir\\disk.vmdk", "\\\\server\\share\\disk.vmdk", "file:///vm/d%20x.vmdk",
          "../../up.vmdk", "dir\\disk.vmdk", "/vm/100%#?.vmdk"})
        save("reference", "reference" + std::to_string(++number), reference);
    save("header", "plain", plain);
    save("header", "compressed", compressed);
    save("record", "fast", makeRecord(1));
    save("record", "stored", makeRecord(0));
    save("disk", "plain", withLength(plain));
    save("disk", "compressed", withLength(compressed));
    save("disk", "split", makeSplit());
    save("chain", "plain", plain);
    save("chain", "compressed", compressed);
    save("operations", "plain",
         Bytes("\x02\x00\x01\x05\x10\x27\x00\xF0\x04\x00\x00\x07\x00\x00\x05\x01\x00\x03", 18));
    save("operations", "compressed",
         Bytes("\x03\x00\x01\x05\x10\x27\x00\xF0\x04\x00\x00\x00\x01\x02\x20\x4E\x00\x91\x07", 19));
    return 0;
}
