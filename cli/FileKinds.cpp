#include "FileKinds.h"

#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Sources.h"

#include <CLI/CLI.hpp>

#include <array>
#include <fstream>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

/// What the first bytes of a regular file tell.
Kind kindOfContent(const std::string& name) {
    if (!fs::is_regular_file(pathFromName(name)))
        return Kind::raw;
    std::array<char, 32> bytes{};
    std::ifstream file(pathFromName(name), std::ios::binary);
    file.read(bytes.data(), bytes.size());
    return looksLikeVMDK(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<int>(file.gcount()))
               ? Kind::vmdk
               : Kind::raw;
}

} // namespace

void addKindOption(CLI::App& verb, const std::string& option, std::string& kind, const std::string& help) {
    verb.add_option(option, kind, help)->type_name("raw|vmdk")->check(CLI::IsMember({"raw", "vmdk"}));
}

Kind kindOfOption(const std::string& option) {
    return option.empty() ? Kind::unclear : option == "raw" ? Kind::raw : Kind::vmdk;
}

Kind kindOfName(const std::string& name) {
    if (hasExtension(name, ".vmdk"))
        return Kind::vmdk;
    for (const char* extension : {".raw", ".img", ".iso", ".dd", ".bin"})
        if (hasExtension(name, extension))
            return Kind::raw;
    return Kind::unclear;
}

Kind findKindOfFile(const std::string& name, const std::string& option, const char* optionName) {
    verifyIsFile(name);
    const Kind asked = kindOfOption(option);
    if (asked != Kind::unclear)
        return asked;
    const Kind named = kindOfName(name);
    const Kind content = kindOfContent(name);
    // A guest may write into a raw image what makes it look like a disk that names other files.
    if (named == Kind::raw && content == Kind::vmdk)
        throw CUsageError(name +
                          ": the name is that of a raw image, but the content looks like a VMDK; "
                          "say which it is (" +
                          optionName + ")");
    return named == Kind::unclear ? content : named;
}

std::unique_ptr<ISource> openFileSource(const std::string& name, Kind kind, CPasswords& passwords,
                                        IFileSystem* files) {
    if (kind == Kind::raw)
        return std::make_unique<CRawSource>(CRawFile::openForReading(pathFromName(name)));
    const P<CVMDKDisk> disk = openDisk(name, IIOStream::Access_Read, passwords.getForOpening(name), files);
    return std::make_unique<CDiskSource>(name, disk.get());
}

} // namespace tessel::cli
