#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-list.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl list [OPTIONS] [APP]\n\n"
        "List information regarding installed VELK applications.\n"
        "Will only list information for the given APP if supplied.\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n"
        "--friendly-name    Return friendly name of APP if available, else appname.\n"
        "                   Requires APP to be supplied.\n"
        "--version          Return version of APP. Requires APP to be supplied.\n"
        "--legacy-apps      List names of legacy apps (package.conf, no manifest.json).\n"
        "--format           List using a specific format.\n"
        "                   Only supports 'idd-size' to print VELK size in non-JSON format.\n"
        "--bundled-apps     List app name and version of apps in the preinstall store.\n"
        "Positional arguments:\n"
        "APP                Name of the application\n\n",
    .options = {{"friendly-name"}, {"version"}, {"legacy-apps"}, {"format", true}, {"bundled-apps"}},
    .most = 1,
};

/** The first thing that is wrong with a combination of options, in the order in which they are checked. */
static std::optional<std::string> find_usage_error(const CommandArguments& arguments) {
    const bool has_app = !arguments.positional.empty();
    const bool has_format = arguments.has("format");
    if ((arguments.has("friendly-name") || arguments.has("version")) && !has_app)
        return "Missing positional argument";
    if (arguments.has("legacy-apps") && has_app)
        return "--legacy-apps does not take an APP argument";
    if (has_format && has_app)
        return "--format does not take an APP argument";
    if (has_format && arguments.has("legacy-apps"))
        return "--format is incompatible with --legacy-apps";
    if (arguments.has("bundled-apps") && has_app)
        return "--bundled-apps does not take an APP argument";
    if (has_format && arguments.option_argument != "idd-size")
        return "--format does not support the argument '" + arguments.option_argument + "'";
    return std::nullopt;
}

static std::optional<std::string> make_list(const CommandArguments& arguments, VelkctlError** error) {
    if (arguments.has("friendly-name"))
        return velkctl_list_option(arguments.positional[0], LIST_FRIENDLY_NAME, error);
    if (arguments.has("version"))
        return velkctl_list_option(arguments.positional[0], LIST_VERSION, error);
    if (!arguments.positional.empty())
        return velkctl_list_one(arguments.positional[0], error);
    if (arguments.has("legacy-apps"))
        return velkctl_list_legacy(error);
    if (arguments.has("format"))
        return velkctl_list_sizes(error);
    if (arguments.has("bundled-apps"))
        return velkctl_list_bundled(error);
    return velkctl_list_all(error);
}

int cmd_list(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    if (const auto message = find_usage_error(arguments))
        return report_usage_error(kSyntax, *message);
    ErrorSlot error;
    const std::optional<std::string> text = make_list(arguments, error);
    // Asking for what is not there is an answer, not an incident.
    if (!text && error.code() == VELKCTL_ERROR_NOT_FOUND)
        return error.code();
    if (!text)
        return report_failure(error);
    print_text(*text);
    return EXIT_SUCCESS;
}
