// Locks the file that the command line names, says so, and stays until somebody ends it.

#include "lum/CError.h"
#include "lum/CLockFile.h"
#include "lum/CNativeFileSystem.h"

#include <windows.h>

#include <cstdio>

using namespace lum;

int wmain(int argc, wchar_t** argv) {
    if (argc != 2)
        return 2;
    try {
        const P<IFileSystem> fileSystem(new CNativeFileSystem);
        const P<CLockFile> lockFile(new CLockFile(fileSystem.get(), nativePathToURI(argv[1]),
                                                  CLockFile::LockType_Exclusive, false, true));
        std::putchar('x');
        std::fflush(stdout);
        ::Sleep(INFINITE);
    } catch (const CError& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    return 1;
}
