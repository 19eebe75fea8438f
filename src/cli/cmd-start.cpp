#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "integration/runstate.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl start APP\n\n"
        "Start an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {},
    .least = 1,
    .most = 1,
};

/** The application was running before and was restarted. */
static constexpr int kAlreadyStarted = 6;

int cmd_start(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    bool already_started = false;
    ErrorSlot error;
    if (velkctl_start(app, &already_started, error) != 0)
        return report_failure(error);
    if (already_started) {
        log_info("Application %s was already started", app.c_str());
        return kAlreadyStarted;
    }
    log_info("Started application %s", app.c_str());
    return EXIT_SUCCESS;
}
