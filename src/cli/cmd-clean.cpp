#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-clean.h"
#include "store/lock.h"

static const CommandSyntax kSyntax = {
    .usage =
        "\nUsage: velkctl clean\n\n"
        "Clean up after an interrupted command to bring the system back to a good state\n",
    .options = {},
};

int cmd_clean(int argc, char** argv) {
    CommandArguments arguments;
    if (const auto status = parse_arguments(argc, argv, kSyntax, &arguments))
        return *status;
    std::optional<std::string> content;
    ErrorSlot error;
    if (velkctl_clean(&content, error) != 0)
        return report_failure(error);
    if (!content)
        log_info("No cleanup necessary");
    else if (*content == NO_CLEAN_ON_FAILURE)
        log_info("Deleted lock file. No further cleanup necessary.");
    else
        log_info("Successfully performed cleanup of application %s", content->c_str());
    return EXIT_SUCCESS;
}
