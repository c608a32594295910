#include "Confinement.h"

#include "DiskConfinement.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

/// The folders that the command line names.
TArray<std::string>& allowedFolders() {
    static TArray<std::string> folders;
    return folders;
}

P<CConfinedFileSystem> makeConfined(IFileSystem* files, const std::string& name) {
    const CURI uri = uriFromName(name);
    TArray<CURI> folders;
    for (const std::string& folder : allowedFolders())
        folders.push_back(uriFromName(folder));
    return about(name, [&] { return confineToDisk(files, uri, folders); });
}

} // namespace

void addAllowOption(CLI::App& verb) {
    verb.add_option_function<std::vector<std::string>>(
            "--allow",
            [](const std::vector<std::string>& folders) {
                for (const std::string& folder : folders) {
                    if (!std::filesystem::is_directory(pathFromName(folder)))
                        throw CFailure(folder, "This is no folder (--allow)");
                    allowedFolders().push_back(folder);
                }
            },
            "Folder, besides the disk's own, whose files the disk may name: parents, extents")
        ->type_name("DIR")
        ->expected(1)
        ->take_all();
}

P<IFileSystem> confine(IFileSystem* files, const std::string& name) {
    return P<IFileSystem>(makeConfined(files, name).get());
}

bool isAllowedFor(const std::string& name, const CURI& uri) {
    const P<CNativeFileSystem> files(new CNativeFileSystem(false));
    return makeConfined(files.get(), name)->isAllowed(uri);
}

} // namespace tessel::cli
