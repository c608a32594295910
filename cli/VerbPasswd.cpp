#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct UPasswd {
    std::string disk;
    bool json = false;
    CPasswords passwords;
};

void changePassword(UPasswd& verb) {
    if (readDescriptor(verb.disk)->getLumEncryptionAlgorithm().isEmpty())
        throw CFailure(verb.disk, "This disk is not encrypted, so there is no password to be changed "
                                  "(tessel convert --encrypt makes an encrypted copy)");
    const P<IFileSystem> files(new CNativeFileSystem);
    const P<CVMDKDisk> disk = openDisk(verb.disk, IIOStream::Access_ReadWrite,
                                       verb.passwords.getForOpening(verb.disk), files.get());
    const String& password = verb.passwords.getNew(verb.disk);
    throwIfInterrupted();
    about(verb.disk, [&] { disk->changePassword(password); });
    std::string parent;
    if (!disk->getParentDiskMainURI().isEmpty())
        parent = nameFromPath(pathFromURI(disk->getParentDiskMainURI()));
    const bool isParentLeft = !parent.empty() && needsPassword(parent);
    if (isParentLeft)
        tellNote(parent + ": This parent's password stays as it is, and a disk is opened by the password of "
                          "its parents; change it as well");
    if (verb.json) {
        Json json;
        json["parentToChange"] = isParentLeft ? Json(parent) : Json(nullptr);
        json["disk"] = describeDisk(verb.disk);
        writeJsonOfWork(json);
    }
}

} // namespace

void addPasswdVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UPasswd>();
    CLI::App* const app = program.add_subcommand("passwd", "Change the password of an encrypted disk");
    app->footer("  tessel passwd secret.vmdk\n"
                "  tessel passwd secret.vmdk --password-file old.txt --new-password-file new.txt");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    verb->passwords.addChangeOptions(*app);
    app->callback([verb, &chosen] { chosen = [verb] { changePassword(*verb); }; });
}

} // namespace tessel::cli
