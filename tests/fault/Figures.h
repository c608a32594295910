#pragma once

#include "lum/types.h"

namespace tessel::test {

/// What the tests of a run have tried and found; printed when the program ends.
struct UFigures {
    lum::int64 faultsInjected = 0;    ///< runs in which an operation was made to fail
    lum::int64 failuresSeen = 0;      ///< of them, those in which somebody was told
    lum::int64 faultsSurvived = 0;    ///< and those that were made good by trying again
    lum::int64 cutsTried = 0;         ///< states of the files that a loss of power left
    lum::int64 disksRefused = 0;      ///< after cuts and faults, where the format cannot promise more
    lum::int64 descriptorsMixed = 0;  ///< by cuts in the middle of their rewrite
    lum::int64 grainsCompared = 0;    ///< after faults and cuts
    lum::int64 grainsUnprotected = 0; ///< of them, those cut in a rewrite in their place
    lum::int64 bytesLost = 0;         ///< of grains that read as nothing that they may
};

UFigures& figures();

} // namespace tessel::test
