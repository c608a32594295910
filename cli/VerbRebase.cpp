#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct URebase {
    std::string disk;
    std::string parent;
    bool isUnsafe = false;
    bool json = false;
    CPasswords passwords;
};

void rebase(URebase& verb) {
    verifyIsFile(verb.disk);
    verifyIsFile(verb.parent);
    for (const auto& file : listFilesOfChain(verb.parent))
        if (isSameFile(file, pathFromName(verb.disk)))
            throw CFailure(verb.parent, "This disk is " + verb.disk + " itself or has it as a parent");
    const String reference = makeParentReference(verb.disk, verb.parent);
    const P<IFileSystem> files(new CNativeFileSystem);
    const String& password = verb.passwords.getForOpening(verb.disk);
    const P<CVMDKDisk> disk = openDisk(verb.disk, IIOStream::Access_ReadWrite, password, files.get());
    const unsigned int expected = disk->getDescriptor()->getParentContentID();
    if (expected == noContentID && !verb.isUnsafe)
        throw CFailure(verb.disk, "This disk has no parent that could be replaced (--unsafe gives it one)");
    const P<CVMDKDisk> parent =
        openDisk(verb.parent, IIOStream::Access_Read,
                 password.isEmpty() ? verb.passwords.getForOpening(verb.parent) : password, files.get());
    const unsigned int actual = parent->getDescriptor()->getContentID();
    if (actual != expected && !verb.isUnsafe)
        throw CFailure(verb.parent, "Its content ID is " + toHexString(actual).toUTF8() + ", but " +
                                        verb.disk + " was made from " + toHexString(expected).toUTF8() +
                                        " (--unsafe takes it nevertheless)");
    if (!disk->getEncrypted() && needsPassword(verb.parent))
        tellWarning(verb.disk +
                    ": The new parent is encrypted and this disk is not: what it stores can be read "
                    "by everybody");
    const Json oldParent = verb.json ? describeDisk(verb.disk)["parent"] : Json();
    throwIfInterrupted();
    about(verb.disk, [&] { disk->changeParent(reference, actual); });
    if (verb.json) {
        Json json;
        json["oldParent"] = oldParent;
        json["disk"] = describeDisk(verb.disk);
        writeJsonOfWork(json);
    }
}

} // namespace

void addRebaseVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<URebase>();
    CLI::App* const app = program.add_subcommand("rebase", "Tell a child where its parent is");
    app->footer("  tessel rebase child.vmdk ../moved/base.vmdk\n"
                "  tessel rebase child.vmdk copy-of-base.vmdk --unsafe");
    app->add_option("DISK", verb->disk, "Main file of the child")->required();
    app->add_option("NEW_PARENT", verb->parent, "Main file of the parent: the same disk elsewhere")
        ->required();
    app->add_flag("--unsafe", verb->isUnsafe,
                  "Take a parent of any content; what the child does not hold itself reads from it");
    app->add_flag("--json", verb->json, "Answer for programs");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { rebase(*verb); }; });
}

} // namespace tessel::cli
