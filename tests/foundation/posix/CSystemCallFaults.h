#pragma once

#include <vector>

namespace tessel::test {

/// Makes calls of the system fail in this thread for as long as it lives: the functions of the C
/// library that it names are replaced in the program that links it, and do what they always do
/// wherever no fault says otherwise. One at a time.
class CSystemCallFaults {
public:
    enum Call { Open, Close, Stat, Seek, Read, Write, SyncData, Sync, Truncate, SetLock, SetFlags, RealPath };
    struct Fault {
        Call call;
        /// What errno tells; 0: the call does not fail.
        int error = 0;
        /// For a transfer that does not fail: the most bytes that it moves.
        int limit = 1 << 30;
        /// For Stat: tells of a block device.
        bool asBlockDevice = false;
        /// How many calls it is about, -1: all.
        int times = 1;
    };

    explicit CSystemCallFaults(std::vector<Fault> faults);
    ~CSystemCallFaults();
    CSystemCallFaults(const CSystemCallFaults&) = delete;
    CSystemCallFaults& operator=(const CSystemCallFaults&) = delete;

    /// How often `call` was made since, whether or not it failed.
    int count(Call call) const;

    /// For the replaced functions: what is to go wrong with this call, or null.
    static const Fault* next(Call call);

private:
    std::vector<Fault> m_faults;
    std::vector<Call> m_calls;
};

} // namespace tessel::test
