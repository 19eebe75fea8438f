#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "base/caller.h"
#include "base/interruption.h"
#include "base/log.h"
#include "cli/command.h"
#include "cli/commands.h"

namespace {

/** What a signal that asks to end does to a command. */
enum class WhenInterrupted {
    Ends,
    Fails,     ///< it takes back what it did, and ends then
    Finishes,  ///< it ends when it is done
};

struct Command {
    const char* name;
    int (*run)(int argc, char** argv);
    const char* help;  ///< its lines in the main help; null keeps it out
    WhenInterrupted when_interrupted = WhenInterrupted::Ends;
};

int cmd_help(int argc, char** argv);

#define INDENT "                         "

const Command kCommands[] = {
    {"backup", cmd_backup, "Backup configuration and data of an VELK\n" INDENT "application",
     WhenInterrupted::Fails},
    {"clean", cmd_clean,
     "Clean up after an interrupted command to bring\n" INDENT "the system back to a good state",
     WhenInterrupted::Finishes},
    {"firmware-compatibility", cmd_firmware_compatibility,
     "Check installed apps for incompatibility with a\n" INDENT
     "given firmware version, returning a JSON object"},
    {"help", cmd_help, "Show this help"},
    {"import", cmd_import, "Import an VELK application to the content store", WhenInterrupted::Fails},
    {"install", cmd_install, "Install an VELK application", WhenInterrupted::Fails},
    {"json-validate", cmd_json_validate, "Validate a JSON document against a JSON schema"},
    {"list", cmd_list, "List information regarding installed VELK\n" INDENT "applications"},
    // Serves the applications' own scripts, not people.
    {"package-conf", cmd_package_conf, nullptr},
    {"re-import", cmd_re_import,
     "Restores links from vlp mount to application                          store", WhenInterrupted::Fails},
    {"remove", cmd_remove, "Remove an imported VELK application from the\n" INDENT "content store",
     WhenInterrupted::Fails},
    {"restore", cmd_restore, "Restore configuration and data of an VELK\n" INDENT "application from backup",
     WhenInterrupted::Fails},
    {"setup", cmd_setup, "Setup an VELK application to be able to run on\n" INDENT "the system",
     WhenInterrupted::Fails},
    {"start", cmd_start, "Start an VELK application", WhenInterrupted::Fails},
    {"stop", cmd_stop, "Stop an VELK application", WhenInterrupted::Fails},
    {"teardown", cmd_teardown, "Revert all setup performed during setup of the\n" INDENT "application",
     WhenInterrupted::Fails},
    {"uninstall", cmd_uninstall, "Uninstall an VELK application", WhenInterrupted::Fails},
    {"validate-manifest", cmd_validate_manifest,
     "Validate if the app is signed or if the app's\n"
     "                       manifest matches vendorId and schema(s) of an\n"
     "                       installed Developer Mode application"},
    {"verify-signature", cmd_verify_signature, "Verify the signature of an VELK application",
     WhenInterrupted::Fails},
    {"verify-user-group", cmd_verify_user_group,
     "Verify the user and group of an VELK\n" INDENT "application"},
};

void print_help() {
    std::printf(
        "\nUsage: velkctl [OPTIONS] COMMAND\n\n"
        "Options:\n"
        "%-23sRedirect output to syslog (default is stderr)\n"
        "%-23sDisplay version information and exit\n\n"
        "Commands:\n",
        "--syslog", "-v, --version");
    for (const Command& command : kCommands)
        if (command.help)
            std::printf("%-23s%s\n", command.name, command.help);
    std::printf("\nRun 'velkctl COMMAND --help' for details about a specific command\n");
}

int cmd_help(int, char**) {
    print_help();
    return EXIT_SUCCESS;
}

int print_version(int argc, char** argv) {
    if (optind < argc) {
        _log_error_code(VELKCTL_ERROR_GENERAL, "Unexpected command argument '%s'", argv[optind]);
        return EXIT_USAGE;
    }
    std::printf("%s\n", VELKCTL_VERSION);
    return EXIT_SUCCESS;
}

int carry_out(const Command& command, int argc, char** argv) {
    if (command.when_interrupted == WhenInterrupted::Ends)
        return command.run(argc, argv);
    hold_interruptions();
    const std::optional<Uninterrupted> shield = command.when_interrupted == WhenInterrupted::Finishes
                                                    ? std::optional<Uninterrupted>(std::in_place)
                                                    : std::nullopt;
    return command.run(argc, argv);
}

int run_command_named(const char* name, int argc, char** argv) {
    for (const Command& command : kCommands)
        if (std::strcmp(command.name, name) == 0)
            return carry_out(command, argc, argv);
    _log_error_code(VELKCTL_ERROR_GENERAL, "Unknown command '%s'", name);
    print_help();
    return EXIT_USAGE;
}

int run(int argc, char** argv) {
    const option options[] = {
        {"syslog", no_argument, nullptr, 's'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    int log_mode = LOG_MODE_STDERR;
    bool version_wanted = false;
    optind = 0;
    int found = 0;
    while ((found = getopt_long(argc, argv, "+v", options, nullptr)) != -1) {
        if (found == '?') {
            print_help();
            return EXIT_USAGE;
        }
        if (found == 's')
            log_mode = LOG_MODE_SYSLOG;
        else
            version_wanted = true;
    }
    log_setup(log_mode);
    if (version_wanted)
        return print_version(argc, argv);
    if (optind == argc)
        return cmd_help(argc, argv);
    const int first = optind;
    return run_command_named(argv[first], argc - first, argv + first);
}

}  // namespace

int main(int argc, char** argv) {
    put_caller_right();
    const int status = run(argc, argv);
    // An answer that could not be written, on a full disk for instance, must not look like one.
    const int reason = finish_standard_output();
    const bool is_lost = reason != 0 && status == EXIT_SUCCESS;
    if (is_lost)
        _log_error_code(VELKCTL_ERROR_GENERAL, "%s:%d: Failed writing to standard output: %s", __FILE__,
                        __LINE__, system_error_text(reason).c_str());
    carry_out_interruption();
    return is_lost ? VELKCTL_ERROR_GENERAL : status;
}
