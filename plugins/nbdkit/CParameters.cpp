#include "CParameters.h"

#include "Server.h"
#include "lum/CError.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

namespace tessel::nbdkit {

namespace {

constexpr int highestLevel = 9;

/// A copy made by the server that is wiped before it goes.
class CServerSecret {
public:
    explicit CServerSecret(const char* parameter) {
        if (nbdkit_read_password(parameter, &m_text) != 0)
            throw CError(String());
    }
    ~CServerSecret() {
        if (m_text)
            ::explicit_bzero(m_text, std::strlen(m_text));
        std::free(m_text);
    }
    CServerSecret(const CServerSecret&) = delete;
    CServerSecret& operator=(const CServerSecret&) = delete;

    TCryptBuffer<char> getBytes() const {
        TCryptBuffer<char> bytes;
        bytes.append(m_text, static_cast<int64>(std::strlen(m_text)));
        return bytes;
    }

private:
    char* m_text = nullptr;
};

CURI uriFromParameter(const char* key, const std::string& value) {
    if (value.empty())
        throw CError(String::fromUTF8(std::string(key) + "= is empty."));
    return nativePathToURI(String::fromUTF8(value));
}

} // namespace

const char* const CParameters::help =
    "[file=]DISK      (required) Main file of the disk.\n"
    "readonly=BOOL    Only read; others may read the disk, too. The word alone will do.\n"
    "password=SECRET  Password of an encrypted disk and its parents; rather -, +FILE or -FD.\n"
    "allow=DIR        Folder, besides the disk's own, whose files the disk may name; may be repeated.\n"
    "level=N          Compression level, 0 to 9, where the disk is compressed.";

void CParameters::set(const std::string& key, const char* value) {
    // A word alone arrives as a file. A disk of this name is "./readonly".
    if (key == "file" && std::strcmp(value, "readonly") == 0) {
        m_readOnly = true;
    } else if (key == "file") {
        setFile(value);
    } else if (key == "readonly") {
        const int isOn = nbdkit_parse_bool(value);
        if (isOn < 0)
            throw CError(String());
        m_readOnly = isOn != 0;
    } else if (key == "password") {
        readPassword(value);
    } else if (key == "allow") {
        allowFolder(value);
    } else if (key == "level") {
        setLevel(value);
    } else {
        throw CError(String::fromUTF8("unknown parameter '" + key +
                                      "' (file, readonly, password, allow, level are known)"));
    }
}

void CParameters::verifyComplete() const {
    if (m_file.isEmpty())
        throw CError("the file=DISK parameter is missing: which disk shall be served?");
}

void CParameters::setFile(const std::string& value) {
    if (!m_file.isEmpty())
        throw CError(String::fromUTF8("a second disk is named: '" + value + "'; one is served"));
    m_file = uriFromParameter("file", value);
}

void CParameters::allowFolder(const std::string& value) {
    std::error_code error;
    if (!std::filesystem::is_directory(value, error))
        throw CError(String::fromUTF8("allow=" + value + ": This is no folder"));
    m_folders.push_back(uriFromParameter("allow", value));
}

void CParameters::readPassword(const char* value) {
    m_password = CSecretText::fromUTF8(CServerSecret(value).getBytes());
    if (m_password.isEmpty())
        throw CError("the password is empty");
}

void CParameters::setLevel(const char* value) {
    int level = -1;
    if (nbdkit_parse_int("level", value, &level) != 0)
        throw CError(String());
    if (level < 0 || level > highestLevel)
        throw CError(String::fromUTF8("level=" + std::string(value) + " is outside 0 to 9"));
    m_level = level;
}

} // namespace tessel::nbdkit
