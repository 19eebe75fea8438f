#include "integration/web-text.h"

#include "base/paths.h"
#include "base/quote.h"

/** Stands in front of a regular expression where a section's name is expected, and makes the next word that.
 */
static constexpr const char* kExpressionMark = "~";

/**
 * The name of a file or directory in quotes, for a section that takes a name or a pattern: one that the web
 * server would take for a pattern is written as the pattern that only it fits. An escaped wildcard would not
 * do, since the server sees no pattern in it and then compares the escaping too.
 */
static std::string section_name(const std::string& name) {
    if (name == kExpressionMark)
        return double_quoted("[~]");
    if (name.find_first_of("*?[") == std::string::npos)
        return double_quoted(name);
    std::string pattern;
    for (const char character : name) {
        const bool is_wildcard = character == '*' || character == '?' || character == '[';
        if (is_wildcard)
            pattern += '[';
        else if (character == '\\')
            pattern += '\\';
        pattern += character;
        if (is_wildcard)
            pattern += ']';
    }
    return double_quoted(pattern);
}

std::string transfer_text(const std::string& app, const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += "TransferMethodProxy " + double_quoted("/local/" + app + "/" + name) + " " +
                paths::transfer_socket(app) + "\n";
    return text;
}

std::string fcgi_text(const std::string& web_directory, const std::string& socket,
                      const std::vector<std::string>& names) {
    std::string text = "<Directory " + section_name(web_directory) + ">\n";
    for (const std::string& name : names)
        text += "  <Files " + section_name(name) + ">\n    SetHandler \"proxy:unix:" + socket +
                "|fcgi://localhost/\"\n  </Files>\n";
    return text + "</Directory>\n<Proxy \"fcgi://localhost/\" flushpackets=auto>\n</Proxy>\n";
}

std::string access_rules_text(const std::vector<WebDirectory>& directories) {
    std::string text;
    for (const WebDirectory& directory : directories) {
        text += "<Directory " + section_name(directory.path) + ">\n";
        for (const WebFile& file : directory.files)
            text += "  <Files " + section_name(file.name) + ">\n    Require orvo-group " + file.access_group +
                    "\n  </Files>\n";
        text += "</Directory>\n\n";
    }
    return text;
}
