#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "store/velkctl-verify-signature.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl verify-signature [OPTIONS] PATH\n\n"
        "Verifies the signature of an VELK application\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n\n"
        "Positional arguments:\n"
        "PATH               Path to the VELK application package\n",
    .options = {},
    .least = 1,
    .most = 1,
};

int cmd_verify_signature(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    const std::string& path = arguments.positional[0];
    ErrorSlot error;
    if (verify_package_signature(path.c_str(), error) != 0)
        return report_failure(error);
    log_info("Successfully verified signature of %s", path.c_str());
    return EXIT_SUCCESS;
}
