#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-developer-mode.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl validate-manifest [OPTIONS] <APP>\n\n"
        "Verify that an VELK is signed or is valid in Developer Mode\n\n"
        "Options:\n"
        "-h, --help           Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                  Name of unsigned VELK to validate\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_validate_manifest(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    ErrorSlot error;
    if (validate_manifest(arguments.positional[0], error))
        return EXIT_SUCCESS;
    if (!error.is_set())
        SET_GENERAL_ERROR(error, "validate_manifest failed without setting error");
    return report_failure(error);
}
