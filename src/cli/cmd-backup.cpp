#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-backup.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl backup APP\n\n"
        "Backup configuration and data of an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_backup(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    ErrorSlot error;
    if (velkctl_perform_backup(app, error) != 0)
        return report_failure(error);
    log_info("Backed up application %s", app.c_str());
    return EXIT_SUCCESS;
}
