#pragma once

namespace tessel::test {

/// How often any engine was asked to deflate or to inflate since the start of the test program, by whomever,
/// and how often one of zlib's or libdeflate's was made for that.
struct UDeflateCalls {
    long deflated;
    long inflated;
    long made;
};

UDeflateCalls countDeflateCalls();

} // namespace tessel::test
