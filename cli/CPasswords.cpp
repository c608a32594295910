#include "CPasswords.h"

#include "Confinement.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CError.h"
#include "platform.h"

#include <fstream>

namespace tessel::cli {

namespace {

constexpr std::size_t longestPassword = 65536;

String decodePassword(const std::string& bytes, const std::string& from) {
    if (bytes.empty())
        throw CFailure(from, "The password is empty");
    return about(from, [&] { return String::fromUTF8(bytes); });
}

/// The first line of a file, which may be a pipe.
String readPasswordFile(const std::string& name) {
    verifyIsFile(name);
    std::ifstream file(pathFromName(name), std::ios::binary);
    if (!file)
        throw CFailure(name, "Cannot open the password file");
    std::string line;
    for (char c = 0; file.get(c) && c != '\n';) {
        line += c;
        if (line.size() > longestPassword)
            throw CFailure(name, "The first line is too long to be a password");
    }
    if (file.bad())
        throw CFailure(name, "Cannot read the password file");
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return decodePassword(line, name);
}

String askPassword(const std::string& question) {
    return decodePassword(askWithoutEcho(question), "standard input");
}

} // namespace

void CPasswords::addOpenOption(CLI::App& verb) {
    verb.add_option("--password-file", m_file, "File whose first line is the password of an encrypted disk")
        ->type_name("FILE");
    addAllowOption(verb);
}

void CPasswords::addCreateOptions(CLI::App& verb) {
    auto* const file =
        verb.add_option("--password-file", m_file,
                        "Encrypt the new disk; the first line of FILE is its password, and that of disks "
                        "which are opened")
            ->type_name("FILE");
    verb.add_flag("--encrypt", m_encrypt, "Encrypt the new disk; the password is asked for on the terminal")
        ->excludes(file);
    verb.add_option("--open-password-file", m_openFile,
                    "Password of disks which are opened; does not encrypt the new one")
        ->type_name("FILE");
    addAllowOption(verb);
}

String CPasswords::getForOpening(const std::string& file) {
    if (m_forOpening)
        return *m_forOpening;
    if (!m_openFile.empty())
        m_forOpening = readPasswordFile(m_openFile);
    else if (!m_file.empty())
        m_forOpening = readPasswordFile(m_file);
    else if (isInputTerminal() && needsPassword(file))
        m_forOpening = askPassword("Password of " + file + ": ");
    else
        return String(); // the next file may need one
    return *m_forOpening;
}

String CPasswords::getForCreating(const std::string& file) {
    if (m_forCreating)
        return *m_forCreating;
    m_forCreating = String();
    if (!m_file.empty()) {
        m_forCreating = readPasswordFile(m_file);
    } else if (m_encrypt) {
        m_forCreating = askPassword("New password of " + file + ": ");
        if (!(askPassword("The same once more: ") == *m_forCreating))
            throw CFailure(file, "The two passwords differ");
    }
    return *m_forCreating;
}

} // namespace tessel::cli
