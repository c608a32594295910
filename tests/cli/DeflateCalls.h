#pragma once

namespace tessel::test {

/// How often any engine was asked to deflate or to inflate since the start of the test program, by whomever.
struct UDeflateCalls {
    long deflated;
    long inflated;
};

UDeflateCalls countDeflateCalls();

} // namespace tessel::test
