#pragma once

#include "lum/types.h"

#include <initializer_list>

namespace tessel::test {

/// As long as it lives, the library's CMTRand::rand32() gives these numbers before it goes on with its
/// own. One at a time.
class CScriptedRandomNumbers {
public:
    CScriptedRandomNumbers(std::initializer_list<lum::uint32> numbers);
    ~CScriptedRandomNumbers();
    CScriptedRandomNumbers(const CScriptedRandomNumbers&) = delete;
    CScriptedRandomNumbers& operator=(const CScriptedRandomNumbers&) = delete;

    /// How many of the numbers were not asked for yet.
    int getLeft() const;
};

} // namespace tessel::test
