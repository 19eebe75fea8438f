#include "integration/web-text.h"

#include "base/paths.h"

std::string quote_for_web_server(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\')
            quoted += '\\';
        quoted += character;
    }
    return quoted + "\"";
}

std::string transfer_text(const std::string& app, const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += "TransferMethodProxy " + quote_for_web_server("/local/" + app + "/" + name) + " " +
                paths::transfer_socket(app) + "\n";
    return text;
}

std::string fcgi_text(const std::string& web_directory, const std::string& socket,
                      const std::vector<std::string>& names) {
    std::string text = "<Directory " + quote_for_web_server(web_directory) + ">\n";
    for (const std::string& name : names)
        text += "  <Files " + quote_for_web_server(name) + ">\n    SetHandler \"proxy:unix:" + socket +
                "|fcgi://localhost/\"\n  </Files>\n";
    return text + "</Directory>\n<Proxy \"fcgi://localhost/\" flushpackets=auto>\n</Proxy>\n";
}

std::string access_rules_text(const std::vector<WebDirectory>& directories) {
    std::string text;
    for (const WebDirectory& directory : directories) {
        text += "<Directory " + quote_for_web_server(directory.path) + ">\n";
        for (const WebFile& file : directory.files)
            text += "  <Files " + quote_for_web_server(file.name) + ">\n    Require orvo-group " +
                    file.access_group + "\n  </Files>\n";
        text += "</Directory>\n\n";
    }
    return text;
}
