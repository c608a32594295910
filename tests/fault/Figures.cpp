#include "Figures.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace tessel::test {

namespace {

class CFiguresPrinter : public ::testing::Environment {
public:
    void TearDown() override {
        const UFigures& f = figures();
        const auto print = [](const char* name, lum::int64 value) {
            std::printf("figures: %s: %lld\n", name, static_cast<long long>(value));
        };
        print("faults injected", f.faultsInjected);
        print("failures seen", f.failuresSeen);
        print("faults survived by trying again", f.faultsSurvived);
        print("power cuts tried", f.cutsTried);
        print("disks refused, unfinished or with half a descriptor", f.disksRefused);
        print("descriptors of several sectors cut in their rewrite", f.descriptorsMixed);
        print("grains compared", f.grainsCompared);
        print("grains cut in a rewrite in their place", f.grainsUnprotected);
        print("bytes lost", f.bytesLost);
    }
};

const auto* const printer = ::testing::AddGlobalTestEnvironment(new CFiguresPrinter);

} // namespace

UFigures& figures() {
    static UFigures instance;
    return instance;
}

} // namespace tessel::test
