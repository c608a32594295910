#pragma once

#include "lum/String.h"

namespace tessel::test {

/// What is to go wrong, and when. A rule counts the operations that it fits from when it was added.
///
///   faults->addRule({.operation = FaultRule::Write, .fileSuffix = "-s001.vmdk", .nth = 2});
struct FaultRule {
    enum Operation { Any, Open, Read, Write, Flush, SetLength, Delete, Lock };
    enum Kind {
        Refused,  ///< nothing is done; CIOError 1 or 2, or CFileSystemError: access denied (locks: locked)
        Short,    ///< a transfer is done by half, a change of length half the way, then it fails as above
        FullDisk, ///< nothing is done; CIOError 8 or CFileSystemError: no space
        Torn,     ///< of a write every second sector of 512 bytes is done; else as Refused
    };

    Operation operation = Any;
    Kind kind = Refused;
    /// How the file's name must end; empty: any file.
    lum::String fileSuffix = {};
    /// Transfers and locks that touch no byte from `rangeStart` up to, not including, `rangeEnd` do not
    /// fit; other operations do whatever the range.
    lum::int64 rangeStart = 0;
    lum::int64 rangeEnd = INT64_MAX;
    /// Which of the fitting operations fails: 1 is the first.
    int nth = 1;
    /// So do all that follow it.
    bool always = false;
};

} // namespace tessel::test
