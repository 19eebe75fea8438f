#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "manifest/allowlist.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl verify-user-group [OPTIONS] APP USER GROUP\n\n"
        "Verifies user and group of an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP               Name of the application package\n"
        "USER              Name of the application user\n"
        "GROUP             Name of the application group\n",
    .options = {},
    .least = 3,
    .most = 3,
    .too_few = "Missing positional arguments",
};

int cmd_verify_user_group(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    const std::string& user = arguments.positional[1];
    const std::string& group = arguments.positional[2];
    ErrorSlot error;
    if (verify_user_and_group(app, user, group, error) != 0)
        return report_failure(error);
    log_info("Successfully verified username '%s' and groupname '%s' of the application '%s'", user.c_str(),
             group.c_str(), app.c_str());
    return EXIT_SUCCESS;
}
