#include "DiskConfinement.h"

namespace tessel {

P<CConfinedFileSystem> confineToDisk(IFileSystem* files, const CURI& mainFile, const TArray<CURI>& folders) {
    const CURI uri = mainFile.toNormalized();
    P<CConfinedFileSystem> confined(new CConfinedFileSystem(files, uri.getParent()));
    confined->allow(files->followLinks(uri).getParent());
    for (const CURI& folder : folders)
        confined->allow(folder);
    return confined;
}

} // namespace tessel
