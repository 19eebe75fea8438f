#pragma once

#include <getopt.h>

#include <cstddef>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/** Exit status of every usage error. */
inline constexpr int EXIT_USAGE = VELKCTL_ERROR_GENERAL;

/** An option of a command besides `-h` and `--help`; it has no short form. */
struct CommandOption {
    const char* name;
    bool takes_argument = false;
};

/** What a command accepts on its command line. */
struct CommandSyntax {
    const char* usage;  ///< the whole help text
    std::vector<CommandOption> options;
    size_t least = 0;  ///< positional arguments that are required
    size_t most = 0;   ///< positional arguments that are allowed
    const char* too_few = "Missing positional argument";
};

/** What was found on a command line. */
struct CommandArguments {
    std::set<std::string> options;  ///< names of the options that were given
    std::string
        option_argument;  ///< the argument of the option that takes one; commands have at most one such
    std::vector<std::string> positional;

    [[nodiscard]] bool has(const char* option) const { return options.contains(option); }
};

/**
 * Parse a command's own arguments; `argv[0]` is the command's name. Parsing stops at the first word that is
 * no option.
 *
 * Prints the usage text on standard output for `-h`, for an unknown option and after a logged complaint about
 * the number of positional arguments.
 *
 * @return the exit status when the command is over with that, nothing when it is to be carried out
 */
[[nodiscard]] std::optional<int> parse_arguments(int argc, char** argv, const CommandSyntax& syntax,
                                                 CommandArguments* arguments);

/** Complain about a wrong use: log `message` with code 10, print the usage, return the exit status. */
int report_usage_error(const CommandSyntax& syntax, const std::string& message);

/** Log the error that ended a command and return its code; a failure that left no record is
 * VELKCTL_ERROR_UNDEFINED. */
int report_failure(const ErrorSlot& error);

/** Print a text on standard output as it stands. */
void print_text(const std::string& text);
