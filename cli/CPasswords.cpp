#include "CPasswords.h"

#include "Confinement.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CError.h"
#include "platform.h"

#include <CLI/CLI.hpp>

#include <fstream>

namespace tessel::cli {

namespace {

constexpr int64 longestPassword = 65536;

CSecretText decodePassword(const TCryptBuffer<char>& bytes, const std::string& from) {
    if (bytes.isEmpty())
        throw CFailure(from, "The password is empty");
    return about(from, [&] { return CSecretText::fromUTF8(bytes); });
}

/// The first line of a file, which may be a pipe.
CSecretText readPasswordFile(const std::string& name) {
    forbidCoreDumps();
    verifyIsFile(name);
    std::ifstream file;
    file.rdbuf()->pubsetbuf(nullptr, 0); // no memory of its own, which nobody would wipe
    file.open(pathFromName(name), std::ios::binary);
    if (!file)
        throw CFailure(name, "Cannot open the password file");
    TCryptBuffer<char> line;
    for (char c = 0; file.get(c) && c != '\n';) {
        line.append(&c, 1);
        if (line.getUsed() > longestPassword)
            throw CFailure(name, "The first line is too long to be a password");
    }
    if (file.bad())
        throw CFailure(name, "Cannot read the password file");
    if (!line.isEmpty() && line[line.getUsed() - 1] == '\r')
        line.setUsed(line.getUsed() - 1);
    return decodePassword(line, name);
}

CSecretText askPassword(const std::string& question) {
    forbidCoreDumps();
    return decodePassword(askWithoutEcho(question), "standard input");
}

/// Twice, since what is typed cannot be seen.
CSecretText askNewPassword(const std::string& file) {
    CSecretText password = askPassword("New password of " + file + ": ");
    if (!(askPassword("The same once more: ").get() == password.get()))
        throw CFailure(file, "The two passwords differ");
    return password;
}

} // namespace

void CPasswords::addOpenOption(CLI::App& verb) {
    verb.add_option("--password-file", m_file, "File whose first line is the password of an encrypted disk")
        ->type_name("FILE");
    addAllowOption(verb);
}

void CPasswords::addOpenOptionOfOther(CLI::App& verb, const std::string& option, const std::string& disk) {
    verb.add_option(option, m_file,
                    "File whose first line is the password of " + disk + ", when it is another")
        ->type_name("FILE");
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

void CPasswords::addChangeOptions(CLI::App& verb) {
    addOpenOption(verb);
    verb.add_option("--new-password-file", m_newFile,
                    "File whose first line is the new password; without, it is asked for on the terminal")
        ->type_name("FILE");
}

const String& CPasswords::getForOpening(const std::string& file) {
    if (m_forOpening)
        return m_forOpening->get();
    if (!m_openFile.empty())
        m_forOpening = readPasswordFile(m_openFile);
    else if (!m_file.empty())
        m_forOpening = readPasswordFile(m_file);
    else if (isInputTerminal() && needsPassword(file))
        m_forOpening = askPassword("Password of " + file + ": ");
    else
        return String::getEmptyString(); // the next file may need one
    return m_forOpening->get();
}

const String& CPasswords::getForCreating(const std::string& file) {
    if (m_forCreating)
        return m_forCreating->get();
    m_forCreating = CSecretText();
    if (!m_file.empty()) {
        m_forCreating = readPasswordFile(m_file);
    } else if (m_encrypt) {
        m_forCreating = askNewPassword(file);
    }
    return m_forCreating->get();
}

const String& CPasswords::getNew(const std::string& file) {
    if (!m_new)
        m_new = m_newFile.empty() ? askNewPassword(file) : readPasswordFile(m_newFile);
    return m_new->get();
}

} // namespace tessel::cli
