#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "integration/runstate.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl stop APP\n\n"
        "Stop an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {},
    .least = 1,
    .most = 1,
};

/** The application was not running. */
static constexpr int kAlreadyStopped = 7;

int cmd_stop(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    bool was_running = false;
    ErrorSlot error;
    if (velkctl_stop(app, &was_running, error) != 0)
        return report_failure(error);
    if (!was_running) {
        log_info("Application %s was already stopped", app.c_str());
        return kAlreadyStopped;
    }
    log_info("Stopped application %s", app.c_str());
    return EXIT_SUCCESS;
}
