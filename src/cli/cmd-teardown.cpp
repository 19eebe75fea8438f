#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "integration/velkctl-teardown.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl teardown [OPTIONS] APP\n\n"
        "Reverts all setup performed during setup of the application.\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n"
        "--noreload         Don't reload the web server or daemon\n"
        "--persist-user     Don't remove the application user (if dynamic)\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {{"noreload"}, {"persist-user"}},
    .least = 1,
    .most = 1,
};

int cmd_teardown(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    ErrorSlot error;
    if (velkctl_teardown(app, !arguments.has("noreload"), arguments.has("persist-user"), error) != 0)
        return report_failure(error);
    log_info("Successfully tore down application %s", app.c_str());
    return EXIT_SUCCESS;
}
