#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-restore.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl restore APP\n\n"
        "Restore backed up data of an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_restore(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    ErrorSlot error;
    if (velkctl_restore(app, error) != 0)
        return report_failure(error);
    log_info("Restored application %s", app.c_str());
    return EXIT_SUCCESS;
}
