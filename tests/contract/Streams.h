#pragma once

#include "lum/IIOStream.h"

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tessel::test {

/// An empty stream for a test.
struct StreamUnderTest {
    /// What the stream stands on: it goes after the stream.
    std::shared_ptr<void> owner;
    lum::P<lum::IIOStream> stream;
    bool onFile;
};

struct StreamKind {
    std::string name;
    std::function<StreamUnderTest()> make;
};

inline void PrintTo(const StreamKind& kind, std::ostream* out) {
    *out << kind.name;
}

/// The streams of all file systems, bare and each under a COptimizingIOStream, and those in memory.
std::vector<StreamKind> getStreamKinds();

} // namespace tessel::test
