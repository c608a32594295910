#pragma once

#include "tessel/IVMDKCheckReport.h"

namespace tessel {

/// Hands findings on and counts them.
class CCheckSink {
public:
    /// `report` is borrowed.
    explicit CCheckSink(IVMDKCheckReport& report) : m_report(&report) {}

    void add(const UVMDKCheckFinding& finding) {
        ++m_counts[finding.severity];
        callReport([&] { m_report->addFinding(finding); });
    }
    void onProgress(int64 position) {
        callReport([&] { m_report->onProgress(position); });
    }
    void onExtent() noexcept { ++m_extentCount; }
    void onGrain() noexcept { ++m_grainCount; }

    int64 getCount(UVMDKCheckFinding::Severity severity) const noexcept { return m_counts[severity]; }
    int64 getExtentCount() const noexcept { return m_extentCount; }
    int64 getGrainCount() const noexcept { return m_grainCount; }
    /// True when the report has thrown: that error is its caller's, and no finding.
    bool hasReportThrown() const noexcept { return m_reportHasThrown; }

private:
    template <class Call>
    void callReport(Call call) {
        m_reportHasThrown = true;
        call();
        m_reportHasThrown = false;
    }

    IVMDKCheckReport* m_report;
    int64 m_counts[UVMDKCheckFinding::Severity_Damage + 1] = {};
    int64 m_extentCount = 0;
    int64 m_grainCount = 0;
    bool m_reportHasThrown = false;
};

} // namespace tessel
