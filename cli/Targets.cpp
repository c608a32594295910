#include "Targets.h"

#include "Errors.h"
#include "Names.h"
#include "lum/CMTRand.h"
#include "lum/CMutexLock.h"
#include "lum/TextFunctions.h"
#include "platform.h"

namespace tessel::cli {

namespace fs = std::filesystem;

fs::path folderOf(const fs::path& path) {
    const fs::path folder = path.parent_path();
    return folder.empty() ? fs::path(".") : folder;
}

fs::path resolveTarget(const std::string& name, bool force) {
    fs::path path = pathFromName(name);
    if (!path.has_filename())
        throw CFailure(name, "It is a folder, not a file");
    std::error_code error;
    if (!fs::is_directory(folderOf(path), error))
        throw CFailure(name, "There is no such folder: " + nameFromPath(folderOf(path)));
    if (!somethingExists(path))
        return path;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::directory)
        throw CFailure(name, "It is a folder, not a file");
    if (status.type() == fs::file_type::not_found)
        throw CFailure(name, "It is a link that leads nowhere");
    if (status.type() != fs::file_type::regular)
        throw CFailure(name, "Only a regular file can be replaced");
    if (!force)
        throw CFailure(name, "The file exists already (--force replaces it)");
    if (!isLink(path))
        return path;
    path = followLinks(path, error);
    if (error)
        throw CFailure(name, "Cannot look up file: " + describeSystemError(error));
    return path;
}

fs::path makeTemporaryName(const fs::path& folder) {
    for (;;) {
        unsigned int number = 0;
        {
            const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
            number = CMTRand::getGlobal()->rand32();
        }
        fs::path path = folder / ("tessel-tmp-" + toHexString(number).toUTF8());
        if (!somethingExists(path))
            return path;
    }
}

} // namespace tessel::cli
