#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "integration/velkctl-setup.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl setup [OPTIONS] APP\n\n"
        "Sets up an VELK application from the content store\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n"
        "--noreload         Don't reload the web server or daemon\n\n"
        "Positional arguments:\n"
        "APP                Name of the application\n",
    .options = {{"noreload"}},
    .least = 1,
    .most = 1,
};

int cmd_setup(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& app = arguments.positional[0];
    const SetupOptions options = {
        .reload = !arguments.has("noreload"),
        .abort_on_script_config_error = false,
        .allow_external_location = true,
    };
    ErrorSlot error;
    if (velkctl_setup(app, options, error) != 0)
        return report_failure(error);
    log_info("Successfully set up application %s", app.c_str());
    return EXIT_SUCCESS;
}
