#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/caller.h"
#include "base/handles.h"
#include "base/printable.h"
#include "base/velkctl-error.h"
#include "manifest/manifest.h"
#include "pack/folder.h"
#include "pack/json-text.h"
#include "pack/progress.h"
#include "pack/velk-pack-build.h"
#include "pack/velk-pack-info.h"
#include "pack/velk-pack-new.h"
#include "pack/velk-pack-sign.h"
#include "pack/velk-pack-split.h"
#include "pack/velk-pack-verify.h"
#include "system/file.h"

namespace {

/** What was found on a command line. */
struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;

    [[nodiscard]] bool has(const char* name) const { return options.contains(name); }
    [[nodiscard]] std::string value(const char* name, const std::string& otherwise) const {
        const auto found = options.find(name);
        return found == options.end() ? otherwise : found->second;
    }
};

/** How a command ended: what it says on success, for people and for machines, or why it failed. */
struct Answer {
    std::string text;
    JsonPtr json;
    std::vector<Finding> findings;
};

struct Command {
    const char* name;
    const char* help;      ///< its line in the main help
    const char* usage;     ///< its own help
    const char* allowed;   ///< its options, each between blanks, besides --json and --help
    const char* required;  ///< the one of them that must be given, if any
    size_t positional;
    bool (*run)(const Arguments& arguments, Answer* answer, VelkctlError** error);
};

#define COMMON_OPTIONS                                      \
    "--json              Answer in JSON, errors included\n" \
    "-h, --help          Print this help and exit\n"

std::string sizes_text(uint64_t size) { return std::to_string(size) + " bytes"; }

// --- The commands ---

bool run_build(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::optional<Folder> folder = read_folder(arguments.positional[0], error);
    if (!folder)
        return false;
    JsonPtr manifest;
    answer->findings = check_folder(*folder, &manifest);
    if (!answer->findings.empty())
        return false;
    const std::string app = manifest_app_name(manifest.get(), nullptr).value_or("");
    BuildResult result;
    if (!velk_pack_build(*folder, arguments.value("output", app + ".vlp"), !arguments.has("plain"), &result,
                         error))
        return false;
    answer->text = "Packed " + std::to_string(result.entries) + " entries, " +
                   sizes_text(result.content_size) + ", into " + printable(result.path) + ", " +
                   sizes_text(result.size) + "\n";
    answer->json.reset(json_pack("{s:o, s:o, s:o, s:o}", "package", json_text(result.path), "entries",
                                 json_number(result.entries), "contentSize", json_number(result.content_size),
                                 "size", json_number(result.size)));
    return true;
}

void answer_signed(const SignResult& result, Answer* answer) {
    answer->text = "Signed " + printable(result.path) + ", " + sizes_text(result.size) + ", the signature " +
                   sizes_text(result.signature_size) + "\n";
    answer->json.reset(json_pack("{s:o, s:o, s:o}", "package", json_text(result.path), "size",
                                 json_number(result.size), "signatureSize",
                                 json_number(result.signature_size)));
}

bool run_sign(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::string& package = arguments.positional[0];
    SignResult result;
    if (!velk_pack_sign(package, arguments.value("key", ""), arguments.value("output", package), &result,
                        error))
        return false;
    answer_signed(result, answer);
    return true;
}

bool run_attach(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::string& package = arguments.positional[0];
    SignResult result;
    if (!velk_pack_attach(package, arguments.positional[1], arguments.value("output", package), &result,
                          error))
        return false;
    answer_signed(result, answer);
    return true;
}

bool run_info(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::optional<PackageInfo> info = velk_pack_info(arguments.positional[0], error);
    if (!info)
        return false;
    answer->text = info_text(*info);
    answer->json = info_json(*info);
    return true;
}

bool run_verify(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::string& package = arguments.positional[0];
    Signer signer;
    if (!velk_pack_verify(package, arguments.value("keyring", ""), &signer, error))
        return false;
    answer->text =
        printable("Good signature of " + package + " by " + signer.user + ", key " + signer.fingerprint) +
        "\n";
    answer->json.reset(json_pack("{s:o, s:o, s:o, s:I}", "package", json_text(package), "fingerprint",
                                 json_text(signer.fingerprint), "user", json_text(signer.user), "time",
                                 static_cast<json_int_t>(signer.time)));
    return true;
}

bool run_split(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::string& package = arguments.positional[0];
    std::string folder = base_name(package);
    if (folder.ends_with(".vlp"))
        folder.resize(folder.size() - 4);
    folder = arguments.value("output", folder + ".parts");
    if (!velk_pack_split(package, folder, error))
        return false;
    answer->text = printable("Took " + package + " apart, into " + folder) + "\n";
    answer->json.reset(json_pack("{s:o, s:o}", "package", json_text(package), "folder", json_text(folder)));
    return true;
}

bool run_new(const Arguments& arguments, Answer* answer, VelkctlError** error) {
    const std::string& name = arguments.positional[0];
    const std::string folder = arguments.value("output", name);
    if (!velk_pack_new(name, arguments.value("language", "shell"), folder, error))
        return false;
    answer->text =
        "Made the application " + name + " in " + printable(folder) + "; its README.md says what is next\n";
    answer->json.reset(json_pack("{s:o, s:o}", "application", json_text(name), "folder", json_text(folder)));
    return true;
}

const Command kCommands[] = {
    {"attach", "Put a signature made elsewhere behind a package",
     "\nUsage: velk-pack attach [OPTIONS] FILE SIGNATURE\n\n"
     "Put a detached armoured signature that was made elsewhere behind a package\n\n"
     "Options:\n"
     "--output FILE       Write the signed package there and leave the other as it is\n" COMMON_OPTIONS
     "\nPositional arguments:\n"
     "FILE                Path to the unsigned package\n"
     "SIGNATURE           Path to the signature over the whole of it\n",
     " output ", nullptr, 2, run_attach},
    {"build", "Check an application's folder and pack it",
     "\nUsage: velk-pack build [OPTIONS] DIR\n\n"
     "Check an application's folder and pack it; the same content gives the same bytes\n\n"
     "Options:\n"
     "--output FILE       Write the package there (default: APPNAME.vlp, here)\n"
     "--plain             A plain tar archive in place of a compressed one\n" COMMON_OPTIONS
     "\nPositional arguments:\n"
     "DIR                 The application's folder, with its manifest.json\n",
     " output plain ", nullptr, 1, run_build},
    {"help", "Show this help", nullptr, "", nullptr, 0, nullptr},
    {"info", "Show what is in a package",
     "\nUsage: velk-pack info [OPTIONS] FILE\n\n"
     "Show what is in a package and who says to have signed it, which is not verified\n\n"
     "Options:\n" COMMON_OPTIONS "\nPositional arguments:\n"
     "FILE                Path to the package\n",
     "", nullptr, 1, run_info},
    {"new", "Start an application from a template",
     "\nUsage: velk-pack new [OPTIONS] NAME\n\n"
     "Start an application from a template: a program, a manifest, a web page, a LICENSE\n\n"
     "Options:\n"
     "--language LANGUAGE What its program is written in: shell (default) or c\n"
     "--output DIR        Make it there (default: NAME, here)\n" COMMON_OPTIONS "\nPositional arguments:\n"
     "NAME                Name of the application\n",
     " language output ", nullptr, 1, run_new},
    {"sign", "Sign a package with gpg",
     "\nUsage: velk-pack sign [OPTIONS] --key ID FILE\n\n"
     "Sign a package with gpg\n\n"
     "Options:\n"
     "--key ID            What gpg finds the key by: its fingerprint, a mail address\n"
     "--output FILE       Write the signed package there and leave the other as it is\n" COMMON_OPTIONS
     "\nPositional arguments:\n"
     "FILE                Path to the unsigned package\n",
     " key output ", "key", 1, run_sign},
    {"split", "Take a package apart",
     "\nUsage: velk-pack split [OPTIONS] FILE\n\n"
     "Take a package apart into its archive and its signature\n\n"
     "Options:\n"
     "--output DIR        Put them there (default: NAME.parts, here)\n" COMMON_OPTIONS
     "\nPositional arguments:\n"
     "FILE                Path to the package\n",
     " output ", nullptr, 1, run_split},
    {"verify", "Verify a package against a keyring",
     "\nUsage: velk-pack verify [OPTIONS] --keyring FILE FILE\n\n"
     "Verify the signature of a package against a keyring, as a device does\n\n"
     "Options:\n"
     "--keyring FILE      File of public keys, in binary form as devices have it\n" COMMON_OPTIONS
     "\nPositional arguments:\n"
     "FILE                Path to the package\n",
     " keyring ", "keyring", 1, run_verify},
};

// --- The front end ---

constexpr int kUsageStatus = VELKCTL_ERROR_GENERAL;

void print_help() {
    std::printf(
        "\nUsage: velk-pack COMMAND [OPTIONS] ...\n\n"
        "Options:\n"
        "%-20sDisplay version information and exit\n\n"
        "Commands:\n",
        "-v, --version");
    for (const Command& command : kCommands)
        std::printf("%-20s%s\n", command.name, command.help);
    std::printf("\nRun 'velk-pack COMMAND --help' for details about a specific command\n");
}

int report_usage_error(const Command& command, const char* message) {
    std::fprintf(stderr, "velk-pack: %s: %s; see 'velk-pack %s --help'\n", command.name, message,
                 command.name);
    return kUsageStatus;
}

/** Options may stand before and behind what they belong to. */
std::optional<int> parse_arguments(int argc, char** argv, const Command& command, Arguments* arguments) {
    static const option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},        {"json", no_argument, nullptr, 0},
        {"plain", no_argument, nullptr, 0},         {"key", required_argument, nullptr, 0},
        {"keyring", required_argument, nullptr, 0}, {"language", required_argument, nullptr, 0},
        {"output", required_argument, nullptr, 0},  {nullptr, 0, nullptr, 0},
    };
    optind = 0;
    opterr = 0;
    int found = 0;
    int index = 0;
    while ((found = getopt_long(argc, argv, ":h", kOptions, &index)) != -1) {
        if (found == 'h') {
            std::fputs(command.usage, stdout);
            return EXIT_SUCCESS;
        }
        if (found == ':')
            return report_usage_error(command, "Missing value of an option");
        const std::string name = found == 0 ? kOptions[index].name : "";
        if (name != "json" && (name.empty() || !std::strstr(command.allowed, (" " + name + " ").c_str())))
            return report_usage_error(command, "Unknown option");
        arguments->options[name] = optarg ? optarg : "";
    }
    arguments->positional.assign(argv + optind, argv + argc);
    if (arguments->positional.size() < command.positional)
        return report_usage_error(command, "Missing positional argument");
    if (arguments->positional.size() > command.positional)
        return report_usage_error(command, "Too many arguments");
    if (command.required && !arguments->has(command.required))
        return report_usage_error(command, (std::string("Missing option --") + command.required).c_str());
    return std::nullopt;
}

void print_json(const JsonPtr& json) {
    // In printed letters of ASCII alone nothing in it steers a terminal.
    const std::unique_ptr<char, ReleaseWith<std::free>> dumped(
        json_dumps(json.get(), JSON_INDENT(2) | JSON_ENSURE_ASCII));
    std::string text = dumped ? dumped.get() : "{}";
    for (size_t at = 0; (at = text.find('\x7f', at)) != std::string::npos;)
        text.replace(at, 1, "\\u007f");
    std::printf("%s\n", text.c_str());
}

/** The status of a failure: of a folder with findings that of the first. */
int status_of(const Answer& answer, const ErrorSlot& error) {
    if (!answer.findings.empty())
        return answer.findings.front().code;
    return error.is_set() ? error.code() : VELKCTL_ERROR_UNDEFINED;
}

void report_failure_as_json(const Answer& answer, const ErrorSlot& error) {
    json_t* findings = json_array();
    for (const Finding& finding : answer.findings)
        json_array_append_new(findings,
                              json_pack("{s:o, s:o, s:o}", "file", json_text(finding.file), "key",
                                        json_text(finding.key), "message", json_text(finding.message)));
    const std::string message =
        answer.findings.empty() ? error.message() : std::to_string(answer.findings.size()) + " findings";
    print_json(JsonPtr(json_pack("{s:{s:i, s:o, s:o}}", "error", "code", status_of(answer, error), "message",
                                 json_text(message), "findings", findings)));
}

void report_failure(const Answer& answer, const ErrorSlot& error) {
    for (const Finding& finding : answer.findings) {
        const std::string key = finding.key.empty() ? "" : finding.key + ": ";
        std::fprintf(stderr, "velk-pack: %s\n",
                     printable(finding.file + ": " + key + finding.message).c_str());
    }
    if (answer.findings.empty())
        std::fprintf(stderr, "velk-pack: %s\n", printable(error.message()).c_str());
}

int run_command(const Command& command, int argc, char** argv) {
    if (!command.run) {
        print_help();
        return EXIT_SUCCESS;
    }
    Arguments arguments;
    if (const auto status = parse_arguments(argc, argv, command, &arguments))
        return *status;
    const bool as_json = arguments.has("json");
    if (as_json)
        ProgressBar::silence();
    Answer answer;
    ErrorSlot error;
    if (!command.run(arguments, &answer, error)) {
        (as_json ? report_failure_as_json : report_failure)(answer, error);
        return status_of(answer, error);
    }
    if (as_json)
        print_json(answer.json);
    else
        std::fputs(answer.text.c_str(), stdout);
    return EXIT_SUCCESS;
}

int run(int argc, char** argv) {
    const std::string word = argc > 1 ? argv[1] : "help";
    if (word == "-v" || word == "--version") {
        std::printf("%s\n", VELKCTL_VERSION);
        return EXIT_SUCCESS;
    }
    if (word == "-h" || word == "--help") {
        print_help();
        return EXIT_SUCCESS;
    }
    for (const Command& command : kCommands)
        if (word == command.name)
            return run_command(command, argc - 1, argv + 1);
    std::fprintf(stderr, "velk-pack: there is no command '%s'; see 'velk-pack help'\n", word.c_str());
    return kUsageStatus;
}

}  // namespace

int main(int argc, char** argv) {
    put_caller_right();
    const int status = run(argc, argv);
    const int reason = finish_standard_output();
    if (reason != 0 && status == EXIT_SUCCESS) {
        std::fprintf(stderr, "velk-pack: standard output: %s\n", system_error_text(reason).c_str());
        return VELKCTL_ERROR_GENERAL;
    }
    return status;
}
