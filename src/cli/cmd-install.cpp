#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-install.h"
#include "store/velkctl-store.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl install [OPTIONS] PATH [LOCATION]\n\n"
        "Installs an VELK application\n\n"
        "Options:\n"
        "-h, --help           Print this help and exit\n"
        "--noreload           Don't reload the web server or daemon\n"
        "--skip-if-ex-config  If post-install script exits with EX_CONFIG (78),\n"
        "                     abort the installation but don't report it as an error.\n\n"
        "Positional arguments:\n"
        "PATH                 Path to the VELK application package\n"
        "LOCATION             Optional installation location\n"
        "                       Valid values: internal, sd_card1\n"
        "                       Default value: internal\n",
    .options = {{"noreload"}, {"skip-if-ex-config"}},
    .least = 1,
    .most = 2,
};

int cmd_install(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    ErrorSlot error;
    const StoreLocation* location = arguments.positional.size() > 1
                                        ? location_by_name(arguments.positional[1], error)
                                        : default_location();
    const SetupOptions options = {
        .reload = !arguments.has("noreload"),
        .abort_on_script_config_error = arguments.has("skip-if-ex-config"),
        .allow_external_location = true,
    };
    std::string app;
    if (!location || velkctl_install(arguments.positional[0], location, options, &app, error) != 0)
        return report_failure(error);
    log_info("Successfully installed application '%s' on '%s'", app.c_str(), location->name);
    return EXIT_SUCCESS;
}
