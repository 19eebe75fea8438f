#include "integration/web-text.h"

#include "base/paths.h"
#include "base/quote.h"

std::string transfer_text(const std::string& app, const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += "TransferMethodProxy " + double_quoted("/local/" + app + "/" + name) + " " +
                paths::transfer_socket(app) + "\n";
    return text;
}

std::string fcgi_text(const std::string& web_directory, const std::string& socket,
                      const std::vector<std::string>& names) {
    std::string text = "<Directory " + double_quoted(web_directory) + ">\n";
    for (const std::string& name : names)
        text += "  <Files " + double_quoted(name) + ">\n    SetHandler \"proxy:unix:" + socket +
                "|fcgi://localhost/\"\n  </Files>\n";
    return text + "</Directory>\n<Proxy \"fcgi://localhost/\" flushpackets=auto>\n</Proxy>\n";
}

std::string access_rules_text(const std::vector<WebDirectory>& directories) {
    std::string text;
    for (const WebDirectory& directory : directories) {
        text += "<Directory " + double_quoted(directory.path) + ">\n";
        for (const WebFile& file : directory.files)
            text += "  <Files " + double_quoted(file.name) + ">\n    Require orvo-group " +
                    file.access_group + "\n  </Files>\n";
        text += "</Directory>\n\n";
    }
    return text;
}
