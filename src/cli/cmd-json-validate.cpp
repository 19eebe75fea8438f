#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-json-validate.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl json-validate [OPTIONS] INPUT SCHEMA\n\n"
        "Validate JSON file based on JSON schema\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "INPUT              JSON file to validate\n"
        "SCHEMA             JSON schema to validate against\n",
    .options = {},
    .least = 2,
    .most = 2,
    .too_few = "Too few arguments",
};

int cmd_json_validate(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    std::string message;
    if (validate_file_against_schema(arguments.positional[0], arguments.positional[1], &message) == 0)
        return EXIT_SUCCESS;
    log_general_error("%s", message.c_str());
    return VELKCTL_ERROR_GENERAL;
}
