#include "CBombFile.h"

#include "System.h"

namespace tessel::test {

std::string littleEndian(uint64 value, int bytes) {
    std::string result;
    for (int i = 0; i < bytes; ++i)
        result += static_cast<char>(static_cast<unsigned char>(value >> (8 * i)));
    return result;
}

std::string describeDisk(const std::string& createType, const std::string& extentLines) {
    return "# Disk "
           "DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID=ffffffff\ncreateType=\"" +
           createType + "\"\n" + extentLines + "ddb.adapterType = \"ide\"\n";
}

std::string describeSingle(uint64 sectors, const std::string& createType) {
    return describeDisk(createType, "RW " + std::to_string(sectors) + " SPARSE \"disk.vmdk\"\n");
}

CBombFile::CBombFile(const std::filesystem::path& path) : m_path(path) {
    m_file.exceptions(std::ios::failbit | std::ios::badbit);
    if (!std::filesystem::exists(path)) {
        std::ofstream(path, std::ios::binary).close();
        allowHoles(path);
    }
    m_file.open(path, std::ios::in | std::ios::out | std::ios::binary);
}

void CBombFile::put(int64 position, const std::string& bytes) {
    m_file.seekp(position);
    m_file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    m_file.flush();
}

void CBombFile::put32(int64 position, uint32 value) {
    put(position, littleEndian(value, 4));
}

void CBombFile::fill32(int64 position, int64 count, uint32 value) {
    std::string bytes;
    for (int64 i = 0; i < count; ++i)
        bytes += littleEndian(value, 4);
    put(position, bytes);
}

void CBombFile::putHeader(const UBombHeader& header) {
    std::string bytes = "KDMV" + littleEndian(1, 4) + littleEndian(header.flags, 4);
    for (const uint64 field :
         {header.capacity, header.grainSize, header.descriptorPosition, header.descriptorSize})
        bytes += littleEndian(field, 8);
    bytes += littleEndian(header.entriesPerTable, 4);
    for (const uint64 field : {header.redundantDirectory, header.directory, header.overhead})
        bytes += littleEndian(field, 8);
    bytes += littleEndian(0, 1) + "\n \r\n" + littleEndian((header.flags & 0x10000) != 0 ? 1 : 0, 2);
    bytes.resize(512);
    put(0, bytes);
}

void CBombFile::setLength(int64 length) {
    setFileLength(m_path, length);
}

} // namespace tessel::test
