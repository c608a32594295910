#pragma once

#include <string>

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// Makes --help of the program and of the verbs that are added from now on show examples first, and adds
/// --version. Examples are a verb's footer.
void prepareHelp(CLI::App& program);

void writeHelp(const CLI::App& verb);
void writeVersion();
/// One line, which says where more can be read.
void tellUsageError(const CLI::App& verb, const std::string& problem);

} // namespace tessel::cli
