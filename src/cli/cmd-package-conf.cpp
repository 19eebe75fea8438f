#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "cli/commands.h"
#include "lifecycle/velkctl-package-conf.h"

static const char kUsage[] =
    "\nUsage: velkctl package-conf KEY LINE\n\n"
    "Expect LINE to be on the format \"KEY=VALUE\", extract VALUE and write it to stdout.\n"
    "If KEY doesn't match the supplied LINE argument or if LINE contains\n"
    "syntax errors or constructs that would risk becoming a command injection\n"
    "or in other ways cause problems for it being used in a Shell script, log\n"
    "an error, write the error code to stdout and return a non-zero exit code.\n";

// No option parsing: a key or a line may begin with a minus sign.
int cmd_package_conf(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stderr);
        return EXIT_SUCCESS;
    }
    ErrorSlot error;
    if (argc != 3) {
        std::fputs(kUsage, stderr);
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Wrong number of arguments");
        return log_and_clear_error_then_print_and_return_exit_code(error);
    }
    const std::optional<std::string> value = velkctl_read_package_conf_value(argv[1], argv[2], error);
    if (!value)
        return log_and_clear_error_then_print_and_return_exit_code(error);
    std::printf("%s\n", value->c_str());
    return EXIT_SUCCESS;
}
