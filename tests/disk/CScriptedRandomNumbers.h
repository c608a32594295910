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

/// Counts what is drawn from the library's generators since it was made, and whether whoever drew held the
/// lock of the process's generator. For one thread, one at a time.
class CRandomDraws {
public:
    CRandomDraws();

    /// rand32() and randData(), one each.
    int getCount() const;
    int getCountWithoutLock() const;
    /// How often the lock was taken.
    int getLocks() const;
};

} // namespace tessel::test
