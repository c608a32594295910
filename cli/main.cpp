#include "CLogLines.h"
#include "Errors.h"
#include "Help.h"
#include "Verbs.h"
#include "lum/Logging.h"
#include "platform.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <new>

using namespace tessel::cli;

namespace {

/// Declares the program's verbs.
void addVerbs(CLI::App& program, VerbAction& chosen) {
    addInfoVerb(program, chosen);
    addConvertVerb(program, chosen);
    addCreateVerb(program, chosen);
    addReadVerb(program, chosen);
    addWriteVerb(program, chosen);
    addSpaceVerb(program, chosen);
    addMapVerb(program, chosen);
    addCompareVerb(program, chosen);
    addMeasureVerb(program, chosen);
    addCheckVerb(program, chosen);
    addRebaseVerb(program, chosen);
    addFlattenVerb(program, chosen);
    addCompactVerb(program, chosen);
    addRenameVerb(program, chosen);
    addPasswdVerb(program, chosen);
}

const CLI::App& findVerb(const CLI::App& program) {
    const auto verbs = program.get_subcommands();
    return verbs.empty() ? program : *verbs.front();
}

/// `arguments` are in reverse order. Throws: CUsageError when the first is neither a verb nor an option.
void verifyVerb(const CLI::App& program, const std::vector<std::string>& arguments) {
    if (arguments.empty())
        throw CUsageError("A verb is missing");
    const std::string& first = arguments.back();
    const auto verbs =
        program.get_subcommands([&](const CLI::App* verb) { return verb->get_name() == first; });
    if (first[0] != '-' && verbs.empty())
        throw CUsageError("\"" + first + "\" is no verb");
}

/// What is wrong with the first word of the command line that the verb has no use for.
std::string explainExtras(const CLI::App& verb) {
    const std::vector<std::string> extras = verb.remaining();
    for (const std::string& word : extras)
        if (word.size() > 1 && word[0] == '-')
            return "There is no option " + word;
    return "There is an argument too many: " + (extras.empty() ? std::string() : extras.front());
}

/// Follows the command line. Returns the exit code.
int run(std::vector<std::string> arguments) {
    CLI::App program("Reads, writes and creates virtual disks in the VMDK format", "tessel");
    VerbAction chosen;
    program.allow_windows_style_options(false); // what begins with "/" is a path everywhere
    prepareHelp(program);
    addVerbs(program, chosen);
    program.require_subcommand(0, 1);
    std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
    try {
        verifyVerb(program, arguments);
        program.parse(arguments);
        chosen();
        return Exit_Done;
    } catch (const CDamageFound&) {
        return Exit_Damaged;
    } catch (const CDifferenceFound&) {
        return Exit_Differ;
    } catch (const CLI::CallForHelp&) {
        writeHelp(findVerb(program));
        return Exit_Done;
    } catch (const CLI::CallForVersion&) {
        writeVersion();
        return Exit_Done;
    } catch (const CLI::ExtrasError&) {
        tellUsageError(findVerb(program), explainExtras(findVerb(program)));
    } catch (const CLI::ParseError& error) {
        tellUsageError(findVerb(program), error.what());
    } catch (const CUsageError& error) {
        tellUsageError(findVerb(program), error.what());
    }
    return Exit_Usage;
}

/// What the exit code of a failure is: compare has another use for the usual one.
int getFailureCode(const std::vector<std::string>& arguments) {
    return !arguments.empty() && arguments.front() == "compare" ? Exit_NotCompared : Exit_Failed;
}

} // namespace

int main(int argc, char** argv) {
    int exitCode = Exit_Failed;
    try {
        const std::vector<std::string> arguments = getArguments(argc, argv);
        const int failureCode = getFailureCode(arguments);
        exitCode = failureCode;
        prepareProcess();
        const lum::P<CLogLines> log(new CLogLines);
        lum::setLogSink(log.get());
        try {
            exitCode = run(arguments);
        } catch (const lum::CError& error) {
            throw CFailure("", explainError(error, ""));
        }
        // What a destructor could not write is a failure, though nothing was thrown.
        if (exitCode == Exit_Done && log->tellErrors())
            exitCode = failureCode;
    } catch (const CInterrupted&) {
        endInterrupted();
    } catch (const std::bad_alloc&) {
        tellError("There is not enough memory");
    } catch (const std::exception& error) {
        tellError(error.what());
    }
    lum::setLogSink(nullptr);
    return exitCode;
}
