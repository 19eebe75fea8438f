#include "integration/web-text.h"

#include <string_view>

#include "base/paths.h"
#include "base/quote.h"

/** Stands in front of a regular expression where a section's name is expected, and makes the next word that.
 */
static constexpr const char* kExpressionMark = "~";

/**
 * The server refuses sections for paths that no file can have, which are a little shorter than the longest
 * path, and lines over 8 KiB, which this many characters do not fill even if each of them is escaped.
 */
static constexpr size_t kLongestName = 4000;

/** Where the server, before it looks at anything else in a line, puts in the value of one of its variables.
 */
static constexpr std::string_view kVariable = "${";

bool names_variable(const std::string& name) { return name.find(kVariable) != std::string::npos; }

/**
 * The name of a file or directory for a section that takes a name or a pattern: one that the web server would
 * take for a pattern, or in which it would see a variable, is written as the pattern that only it fits. An
 * escaped wildcard would not do, since the server sees no pattern in it and then compares the escaping too.
 */
static std::string section_pattern(const std::string& name) {
    if (name == kExpressionMark)
        return "[~]";
    if (name.find_first_of("*?[") == std::string::npos && !names_variable(name))
        return name;
    std::string pattern;
    for (const char character : name) {
        if (std::string_view("*?[$").find(character) != std::string_view::npos)
            pattern += std::string("[") + character + "]";
        else
            pattern += character == '\\' ? std::string("\\\\") : std::string(1, character);
    }
    return pattern;
}

bool fits_configuration(const std::string& name) { return section_pattern(name).size() <= kLongestName; }

static std::string section_name(const std::string& name) { return double_quoted(section_pattern(name)); }

std::string transfer_address(const std::string& app, const std::string& name) {
    return "/local/" + app + "/" + name;
}

std::string transfer_mark(const std::string& app) {
    const std::string begin = "TransferMethodProxy " + double_quoted(transfer_address(app, ""));
    return begin.substr(0, begin.size() - 1);  // the name follows, inside the quotes
}

std::string transfer_text(const std::string& app, const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += "TransferMethodProxy " + double_quoted(transfer_address(app, name)) + " " +
                paths::transfer_socket(app) + "\n";
    return text;
}

std::string directory_mark(const std::string& web_directory) {
    return "<Directory " + section_name(web_directory) + ">\n";
}

std::string fcgi_text(const std::string& web_directory, const std::string& socket,
                      const std::vector<std::string>& names) {
    std::string text = directory_mark(web_directory);
    for (const std::string& name : names)
        text += "  <Files " + section_name(name) + ">\n    SetHandler \"proxy:unix:" + socket +
                "|fcgi://localhost/\"\n  </Files>\n";
    return text + "</Directory>\n<Proxy \"fcgi://localhost/\" flushpackets=auto>\n</Proxy>\n";
}

std::string access_rules_text(const std::vector<WebDirectory>& directories) {
    std::string text;
    for (const WebDirectory& directory : directories) {
        text += directory_mark(directory.path);
        for (const WebFile& file : directory.files)
            text += "  <Files " + section_name(file.name) + ">\n    Require orvo-group " + file.access_group +
                    "\n  </Files>\n";
        text += "</Directory>\n\n";
    }
    return text;
}
