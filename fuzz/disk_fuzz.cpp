// A disk of several files, all of them hostile: checked, opened, read, walked, and opened for writing.
//
// The input is a row of files, each with a length of 3 bytes before it: disk.vmdk, a.vmdk, b.vmdk, c.vmdk.

#include "FuzzSupport.h"

#include <vector>

using namespace fuzz;

namespace {

const char* const names[] = {"disk.vmdk", "a.vmdk", "b.vmdk", "c.vmdk"};

CURI uriOf(const char* name) {
    return CURI(String("mem:///")) << String(name);
}

void readSome(CVMDKDisk& disk) {
    const int64 size = disk.getSizeBytes();
    const int64 grain = disk.getGrainSizeBytes();
    std::vector<unsigned char> piece(70000);
    for (const int64 position : {int64{0}, grain - 1, size / 2, size - 1000, size - grain}) {
        mayFail([&] {
            disk.seek(position);
            disk.read(piece.data(), static_cast<int>(std::min<int64>(size - position, 70000)));
        });
        mayFail([&] {
            TBuffer<unsigned char> prepared;
            disk.seek(position / grain * grain);
            disk.readPreparedGrainData(prepared);
        });
        mayFail([&] {
            const UVMDKGrainRun run = disk.findGrainRun(position);
            REQUIRE(run.sizeBytes >= 1 && run.sizeBytes <= size - position);
        });
    }
}

/// Counts what it is told, which must be whole.
class CCountingReport : public CBase, public IVMDKCheckReport {
public:
    void addFinding(const UVMDKCheckFinding& finding) override {
        REQUIRE(!finding.message.isEmpty() && !finding.uri.isEmpty());
        ++count;
    }
    void onProgress(int64 position) override { REQUIRE(position >= -1); }

    int64 count = 0;
};

void check(IFileSystem& files, bool quick) {
    const P<CCountingReport> report(new CCountingReport);
    mayFail([&] {
        const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(&files, uriOf(names[0])));
        checker->check("", quick, *report);
        REQUIRE(report->count ==
                checker->getDamageCount() + checker->getInformationCount() + checker->getUncheckedCount());
    });
}

void open(IFileSystem& files, IIOStream::Access access) {
    mayFail([&] {
        const P<CVMDKDisk> disk(new CVMDKDisk(&files, uriOf(names[0]), access, "", 1, nullptr, nullptr));
        readSome(*disk);
        if (access != IIOStream::Access_ReadWrite)
            return;
        mayFail([&] {
            disk->seek(disk->getSizeBytes() / 2);
            disk->write("written", 7);
            disk->flushChanges();
        });
        mayFail([&] { disk->makeGrainIndependentOfParent(1); });
        mayFail([&] { disk->gatherSpaceInfo(); });
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    Input input(data, size);
    for (const char* name : names)
        if (!input.isEmpty())
            writeFile(*files, uriOf(name), input.takeBytes(input.takeNumber()));
    check(*files, true);
    check(*files, false);
    open(*files, IIOStream::Access_Read);
    open(*files, IIOStream::Access_ReadWrite);
    return 0;
}
