#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "store/velkctl-re-import.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl re-import [OPTIONS]\n\n"
        "Re-imports an application that is installed as vlp mounted.\n"
        "Meant to be run during first boot before pre-installing and restoring applications.\n\n"
        "Options:\n"
        "-h, --help         Print this help and exit\n",
    .options = {},
};

int cmd_re_import(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    ErrorSlot error;
    if (velkctl_re_import_vlp_mount_symlinks(error) != 0)
        return report_failure(error);
    log_info("Re-imported vlp mount symlinks");
    return EXIT_SUCCESS;
}
