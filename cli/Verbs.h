#pragma once

#include <functional>

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// What the command line asks for. Throws: what ends the program with an error.
using VerbAction = std::function<void()>;

// Each declares one verb, with its options, and sets `chosen` when the command line names it.

void addCheckVerb(CLI::App& program, VerbAction& chosen);
void addCompareVerb(CLI::App& program, VerbAction& chosen);
void addCompactVerb(CLI::App& program, VerbAction& chosen);
void addConvertVerb(CLI::App& program, VerbAction& chosen);
void addCreateVerb(CLI::App& program, VerbAction& chosen);
void addFlattenVerb(CLI::App& program, VerbAction& chosen);
void addInfoVerb(CLI::App& program, VerbAction& chosen);
void addMapVerb(CLI::App& program, VerbAction& chosen);
void addMeasureVerb(CLI::App& program, VerbAction& chosen);
void addPasswdVerb(CLI::App& program, VerbAction& chosen);
void addReadVerb(CLI::App& program, VerbAction& chosen);
void addRebaseVerb(CLI::App& program, VerbAction& chosen);
void addRenameVerb(CLI::App& program, VerbAction& chosen);
void addSpaceVerb(CLI::App& program, VerbAction& chosen);
void addWriteVerb(CLI::App& program, VerbAction& chosen);

} // namespace tessel::cli
