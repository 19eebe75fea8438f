#include "cli/command.h"

#include <cstdio>

#include "base/log.h"

static constexpr int kHelp = 'h';
static constexpr int kUnknown = '?';
static constexpr int kFirstOwnOption = 256;

static std::vector<option> long_options(const CommandSyntax& syntax) {
    std::vector<option> options = {{"help", no_argument, nullptr, kHelp}};
    int value = kFirstOwnOption;
    for (const CommandOption& own : syntax.options)
        options.push_back({own.name, own.takes_argument ? required_argument : no_argument, nullptr, value++});
    options.push_back({nullptr, 0, nullptr, 0});
    return options;
}

std::optional<int> parse_arguments(int argc, char** argv, const CommandSyntax& syntax,
                                   CommandArguments* arguments) {
    const std::vector<option> options = long_options(syntax);
    optind = 0;  // makes getopt forget where the global options ended
    int found = 0;
    while ((found = getopt_long(argc, argv, "+h", options.data(), nullptr)) != -1) {
        if (found == kHelp || found == kUnknown) {
            print_text(syntax.usage);
            return found == kHelp ? EXIT_SUCCESS : EXIT_USAGE;
        }
        const CommandOption& own = syntax.options[static_cast<size_t>(found - kFirstOwnOption)];
        arguments->options.insert(own.name);
        if (own.takes_argument)
            arguments->option_argument = optarg;
    }
    arguments->positional.assign(argv + optind, argv + argc);
    if (arguments->positional.size() < syntax.least)
        return report_usage_error(syntax, syntax.too_few);
    if (arguments->positional.size() > syntax.most)
        return report_usage_error(syntax, "Too many arguments");
    return std::nullopt;
}

int report_usage_error(const CommandSyntax& syntax, const std::string& message) {
    _log_error_code(VELKCTL_ERROR_GENERAL, "%s", message.c_str());
    print_text(syntax.usage);
    return EXIT_USAGE;
}

int report_failure(const ErrorSlot& error) {
    log_error(error.get());
    return error.is_set() ? error.code() : VELKCTL_ERROR_UNDEFINED;
}

void print_text(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }
