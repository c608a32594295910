// Makes an encrypted disk and reads it again. The password is the first line of standard input:
//   tessel-example-encrypted_disk DISK <password.txt
#include "tessel/tessel.h"

#include <cstdio>

using namespace tessel;

namespace {

// The library's types for secrets wipe their memory when they go; std::string would not.
CSecretText readPassword() {
    TCryptBuffer<char> line;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) {
        const char byte = static_cast<char>(c);
        line.append(&byte, 1);
    }
    return CSecretText::fromUTF8(line);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    try {
        const P<IFileSystem> files(new CNativeFileSystem);
        const CURI uri = nativePathToURI(String::fromUTF8(argv[1]));
        const CSecretText password = readPassword();
        if (password.isEmpty())
            throw CError("An empty password would not encrypt anything.");

        TBuffer<unsigned char> grain(65536);
        grain.fill('s');
        P<CVMDKDisk> disk = CVMDKDisk::create(files.get(), uri, 16 * 1024 * 1024, password.get(), false, -1,
                                              -1, "", 0xFFFFFFFF, false);
        disk->seek(0);
        disk->write(grain.getData(), static_cast<int>(grain.getUsed()));
        disk->flushChanges();
        disk = nullptr; // releases the lock

        TBuffer<unsigned char> back(grain.getUsed());
        disk = new CVMDKDisk(files.get(), uri, IIOStream::Access_Read, password.get(), -1, nullptr, nullptr);
        disk->read(back.getData(), static_cast<int>(back.getUsed()));
        std::puts(back == grain ? "the same" : "something else");
        return back == grain ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
