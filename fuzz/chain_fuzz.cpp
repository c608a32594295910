// A child whose parent is hostile, and prepared grains that come from a hostile disk.
//
// The input is one file, taken as the parent of a small valid child.

#include "FuzzSupport.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    const CURI parent(String("mem:///parent.vmdk"));
    const CURI child(String("mem:///child.vmdk"));
    writeFile(*files, parent, TBuffer<unsigned char>(data, static_cast<int64>(size)));
    mayFail([&] {
        P<CVMDKDisk> parentDisk(
            new CVMDKDisk(files.get(), parent, IIOStream::Access_Read, "", 1, nullptr, nullptr));
        const unsigned int id = parentDisk->getDescriptor()->getContentID();
        const bool compressed = parentDisk->getCompressed();
        parentDisk = nullptr;
        const P<CVMDKDisk> disk =
            CVMDKDisk::create(files.get(), child, 0, "", compressed, 1, -1, "parent.vmdk", id, false);
        unsigned char bytes[5000];
        for (const int64 position : {int64{0}, int64{100000}, disk->getSizeBytes() - 5000}) {
            mayFail([&] {
                disk->seek(position);
                disk->read(bytes, sizeof bytes);
            });
            mayFail([&] {
                disk->seek(position);
                disk->write("x", 1);
            });
            mayFail([&] { disk->makeGrainIndependentOfParent(position / disk->getGrainSizeBytes()); });
            mayFail([&] { disk->findGrainRun(position); });
        }
        mayFail([&] { disk->flushChanges(); });
    });
    return 0;
}
