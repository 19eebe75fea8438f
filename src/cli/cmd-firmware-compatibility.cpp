#include <cassert>

#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-firmware-compatibility.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl firmware-compatibility VERSION\n\n"
        "Check if any installed apps are incompatible with the supplied firmware\n"
        "version. Prints a JSON object mapping incompatible app names to the\n"
        "reason for incompatibility. An empty object means all apps are\n"
        "compatible.\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "VERSION            Firmware version string to check against\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_firmware_compatibility(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    ErrorSlot error;
    const std::optional<std::string> result = velkctl_firmware_compatibility(arguments.positional[0], error);
    if (error.is_set())
        return report_failure(error);
    assert(result);
    print_text(*result);
    return *result == "{}" ? EXIT_SUCCESS : EXIT_FAILURE;
}
