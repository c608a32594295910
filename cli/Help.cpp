#include "Help.h"

#include "Errors.h"
#include "Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace tessel::cli {

namespace {

constexpr std::size_t leftColumn = 30;
constexpr std::size_t lineLength = 100;

std::string fullNameOf(const CLI::App& verb) {
    return verb.get_parent() ? verb.get_parent()->get_name() + " " + verb.get_name() : verb.get_name();
}

/// What an option is called, with what it takes: "--level N", "--split[=LIMIT]", "DISK".
std::string nameOf(const CLI::Option& option) {
    if (!option.nonpositional())
        return option.get_required() ? option.get_name(true) : "[" + option.get_name(true) + "]";
    std::string names;
    for (const std::string& name : option.get_snames())
        names += "-" + name + ", ";
    names += "--" + option.get_lnames().front();
    // A validator appends what it allows.
    const std::string takes = option.get_type_name().substr(0, option.get_type_name().find(':'));
    if (option.get_items_expected_max() > 0 && option.get_items_expected_min() > 0)
        return names + " " + takes;
    return takes.empty() ? names : names + "[=" + takes + "]";
}

/// Two columns, of which the right one may take several lines.
std::string makeRow(const std::string& left, const std::string& right) {
    std::string line = "  " + left + "  ";
    std::string rows;
    line.resize(std::max(line.size(), leftColumn), ' ');
    std::istringstream words(right);
    for (std::string word; words >> word;) {
        if (line.size() + word.size() > lineLength) {
            rows += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
            line.assign(leftColumn, ' ');
        }
        line += word + " ";
    }
    return rows + line.substr(0, line.size() - 1) + "\n";
}

std::string exitCodesOf(const CLI::App& verb) {
    if (verb.get_name() == "compare")
        return "0 the same, 1 different, 2 wrong usage, 3 could not be compared";
    if (verb.get_name() == "check")
        return "0 no damage found, 1 failed or not all could be checked, 2 wrong usage, 3 damage found";
    return verb.get_parent() ? "0 done, 1 failed, 2 wrong usage"
                             : "0 done, 1 failed, 2 wrong usage, 3 damage found by check";
}

std::string makeHelp(const CLI::App& verb) {
    const auto verbs = verb.get_subcommands([](const CLI::App*) { return true; });
    std::string usage = "Usage:\n  " + fullNameOf(verb);
    std::string arguments;
    std::string options;
    for (const CLI::Option* option : verb.get_options()) {
        (option->nonpositional() ? options : arguments) +=
            makeRow(nameOf(*option), option->get_description());
        if (!option->nonpositional())
            usage += " " + nameOf(*option);
    }
    std::string help = verb.get_description() + ".\n\nExamples:\n" + verb.get_footer() + "\n\n" + usage +
                       (verbs.empty() ? " [OPTION]...\n" : " VERB ARGUMENT...\n");
    if (!arguments.empty())
        help += "\nArguments:\n" + arguments;
    if (!verbs.empty()) {
        help += "\nVerbs:\n";
        for (const CLI::App* each : verbs)
            help += makeRow(each->get_name(), each->get_description());
    }
    help += "\nOptions:\n" + options;
    return help + "\nExit codes: " + exitCodesOf(verb) + ".\n";
}

} // namespace

void prepareHelp(CLI::App& program) {
    program.set_help_flag("-h,--help", "Show this help");
    program.set_version_flag("--version", std::string(TESSEL_VERSION), "Show the version");
    program.footer("  tessel info disk.vmdk\n"
                   "  tessel convert disk.vmdk disk.raw\n"
                   "  tessel convert disk.raw disk.vmdk --compressed\n"
                   "  tessel create disk.vmdk 20G\n"
                   "  tessel convert --help");
}

void writeHelp(const CLI::App& verb) {
    writeText(makeHelp(verb));
}

void writeVersion() {
    writeText("tessel " TESSEL_VERSION "\n");
}

void tellUsageError(const CLI::App& verb, const std::string& problem) {
    const std::string name = verb.get_parent() ? verb.get_name() + ": " : std::string();
    tellError(name + problem + " (see " + fullNameOf(verb) + " --help)");
}

} // namespace tessel::cli
