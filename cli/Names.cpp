#include "Names.h"

#include "Errors.h"
#include "platform.h"

#include <algorithm>

namespace tessel::cli {

namespace fs = std::filesystem;

fs::path pathFromName(const std::string& name) {
    return toSystemPath(name);
}

std::string nameFromPath(const fs::path& path) {
    return fromSystemPath(path);
}

CURI uriFromName(const std::string& name) {
    if (name.empty())
        throw CFailure("", "A file name is empty");
    try {
        return nativePathToURI(String::fromUTF8(name));
    } catch (const CError& error) {
        throw CFailure(String(name.data(), static_cast<int>(name.size())).toUTF8(),
                       "This name cannot be used: " + error.getMessage().toUTF8Lossy());
    }
}

CURI uriFromPath(const fs::path& path) {
    return uriFromName(nameFromPath(path));
}

fs::path pathFromURI(const CURI& uri) {
    return pathFromName(uriToNativePath(uri).toUTF8());
}

bool somethingExists(const fs::path& path) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    if (status.type() == fs::file_type::not_found)
        return false;
    if (error)
        throw CFailure(nameFromPath(path), "Cannot look up file: " + describeSystemError(error));
    return true;
}

bool isSameFile(const fs::path& a, const fs::path& b) {
    std::error_code error;
    return fs::equivalent(a, b, error) && !error;
}

void verifyIsFile(const std::string& name) {
    if (isDriveName(pathFromName(name)))
        return;
    std::error_code error;
    const fs::file_status status = fs::status(pathFromName(name), error);
    if (status.type() == fs::file_type::not_found)
        throw CFailure(name, "No such file");
    if (error)
        throw CFailure(name, "Cannot look up file: " + describeSystemError(error));
    if (status.type() == fs::file_type::directory)
        throw CFailure(name, "It is a folder, not a file");
}

bool hasExtension(const std::string& name, const char* extension) {
    const std::string wanted(extension);
    if (name.size() <= wanted.size())
        return false;
    return std::equal(wanted.begin(), wanted.end(), name.end() - static_cast<std::ptrdiff_t>(wanted.size()),
                      [](char a, char b) { return a == (b >= 'A' && b <= 'Z' ? b - 'A' + 'a' : b); });
}

} // namespace tessel::cli
