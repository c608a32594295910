#pragma once

#include "CGrainChooser.h"
#include "ISink.h"
#include "NewDiskPlan.h"

#include <vector>

namespace tessel::cli {

/// Stores nothing, and counts what a plain disk would store.
class CMeasureSink : public ISink {
public:
    /// All are borrowed.
    CMeasureSink(const UNewDiskPlan* plan, CGrainChooser* chooser)
        : m_plan(plan), m_chooser(chooser), m_storedBytes(plan->extents.size()) {}

    void write(CPiece& piece) override;
    void writeZeros(int64 position, int64 sizeBytes) override;
    void finish(int64) override {}

    /// Of each extent.
    const std::vector<int64>& getStoredBytes() const noexcept { return m_storedBytes; }

private:
    void count(int64 position, const unsigned char* bytes, int64 size);

    const UNewDiskPlan* m_plan;
    CGrainChooser* m_chooser;
    int64 m_counted = 0; ///< up to here all grains are
    std::vector<int64> m_storedBytes;
};

} // namespace tessel::cli
