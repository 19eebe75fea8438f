#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "store/velkctl-import.h"
#include "store/velkctl-store.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl import [OPTIONS] PATH\n\n"
        "Imports an VELK application to the content store\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "PATH               Path to the VELK application package\n"
        "LOCATION           Optional installation location\n"
        "                     Valid values: internal, sd_card1\n"
        "                     Default value: internal\n",
    .options = {},
    .least = 1,
    .most = 2,
};

int cmd_import(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    ErrorSlot error;
    const StoreLocation* location = arguments.positional.size() > 1
                                        ? location_by_name(arguments.positional[1], error)
                                        : default_location();
    std::string app;
    if (!location || velkctl_import(arguments.positional[0], location, &app, error) != 0)
        return report_failure(error);
    log_info("Successfully imported application '%s'", app.c_str());
    return EXIT_SUCCESS;
}
