#pragma once

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// As many jobs as this process may use processors, mostJobs at most.
int getDefaultJobs();
/// Adds --jobs to a verb.
void addJobsOption(CLI::App& verb, int& jobs);

} // namespace tessel::cli
