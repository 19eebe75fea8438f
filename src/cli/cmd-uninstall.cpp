#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-install.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl uninstall [OPTIONS] PATH\n\n"
        "Uninstalls an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n"
        "--noreload         Don't reload the web server or daemon\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {{"noreload"}},
    .least = 1,
    .most = 1,
};

int cmd_uninstall(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    ErrorSlot error;
    if (velkctl_uninstall(app, !arguments.has("noreload"), error) != 0)
        return report_failure(error);
    log_info("Successfully uninstalled application '%s'", app.c_str());
    return EXIT_SUCCESS;
}
