#pragma once

#include "lum/CSecretText.h"
#include "lum/CURI.h"
#include "tessel/types.h"

#include <string>

namespace tessel::nbdkit {

/// What the command line says of the disk to be served: `key=value` parameters, one call each.
class CParameters {
public:
    /// What `--help` shows of the parameters.
    static const char* const help;

    /// Throws: CError for a parameter that is unknown, given twice or has a value that it cannot have. The
    /// server itself tells what is wrong with numbers, switches and passwords; the message is then empty.
    void set(const std::string& key, const char* value);
    /// Throws: CError when a parameter is missing.
    void verifyComplete() const;

    const CURI& getFile() const noexcept { return m_file; }
    const TArray<CURI>& getFolders() const noexcept { return m_folders; }
    const String& getPassword() const noexcept { return m_password.get(); }
    bool isReadOnly() const noexcept { return m_readOnly; }
    int getLevel() const noexcept { return m_level; }
    void forgetPassword() { m_password = CSecretText(); }

private:
    void setFile(const std::string& value);
    void allowFolder(const std::string& value);
    void readPassword(const char* value);
    void setLevel(const char* value);

    CURI m_file;
    TArray<CURI> m_folders;
    CSecretText m_password;
    bool m_readOnly = false;
    int m_level = -1;
};

} // namespace tessel::nbdkit
