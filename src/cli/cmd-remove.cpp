#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "store/velkctl-remove.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl remove [OPTIONS] APP\n\n"
        "Removes an VELK application from the content store\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_remove(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    ErrorSlot error;
    if (velkctl_remove(app, error) != 0)
        return report_failure(error);
    log_info("Successfully removed application %s", app.c_str());
    return EXIT_SUCCESS;
}
