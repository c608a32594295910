#include "Jobs.h"

#include "Copy.h"

#include <CLI/CLI.hpp>
#include <oneapi/tbb/info.h>

#include <algorithm>

namespace tessel::cli {

int getDefaultJobs() {
    return std::clamp(tbb::info::default_concurrency(), 1, mostJobs);
}

void addJobsOption(CLI::App& verb, int& jobs) {
    verb.add_option("--jobs", jobs, "Work on N parts at the same time; as a rule as many as processors")
        ->type_name("N")
        ->check(CLI::Range(1, mostJobs));
}

} // namespace tessel::cli
