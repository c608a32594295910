#pragma once

#include "lum/CSecretText.h"
#include "tessel/types.h"

#include <optional>
#include <string>

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// Where a verb has its passwords from: files that options name, or the user at the terminal. Each is
/// fetched once, when it is first needed, and wiped when the object goes.
class CPasswords {
public:
    /// --password-file, and --allow: for a disk that is opened.
    void addOpenOption(CLI::App& verb);
    /// An option of another name for a second disk, which help calls `disk`.
    void addOpenOptionOfOther(CLI::App& verb, const std::string& option, const std::string& disk);
    /// --password-file, --encrypt, --open-password-file and --allow: for a verb that makes a disk.
    void addCreateOptions(CLI::App& verb);

    /// Those of addOpenOption, and --new-password-file: for a disk that gets another password.
    void addChangeOptions(CLI::App& verb);

    /// The password of disks that are opened; empty when there is none. `file` is asked about at the terminal
    /// when it, or a parent of it, is encrypted and no option gives the password.
    const String& getForOpening(const std::string& file);
    /// The password of the disk `file` that is being made; empty for one that is not encrypted.
    const String& getForCreating(const std::string& file);
    /// The password that `file` shall have.
    const String& getNew(const std::string& file);
    /// True when an option gives a password of disks that are opened.
    bool isGivenForOpening() const { return !m_file.empty() || !m_openFile.empty(); }

private:
    std::string m_file;
    std::string m_openFile;
    std::string m_newFile;
    bool m_encrypt = false;
    std::optional<CSecretText> m_forOpening;
    std::optional<CSecretText> m_forCreating;
    std::optional<CSecretText> m_new;
};

} // namespace tessel::cli
