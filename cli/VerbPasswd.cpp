#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct UPasswd {
    std::string disk;
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
    about(verb.disk, [&] { disk->changePassword(password); });
    if (disk->getParentDiskMainURI().isEmpty())
        return;
    const std::string parent = nameFromPath(pathFromURI(disk->getParentDiskMainURI()));
    if (needsPassword(parent))
        tellNote(parent + ": This parent's password stays as it is, and a disk is opened by the password of "
                          "its parents; change it as well");
}

} // namespace

void addPasswdVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UPasswd>();
    CLI::App* const app = program.add_subcommand("passwd", "Change the password of an encrypted disk");
    app->footer("  tessel passwd secret.vmdk\n"
                "  tessel passwd secret.vmdk --password-file old.txt --new-password-file new.txt");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    verb->passwords.addChangeOptions(*app);
    app->callback([verb, &chosen] { chosen = [verb] { changePassword(*verb); }; });
}

} // namespace tessel::cli
