#pragma once

#include <string>
#include <vector>

/*
 * The web server's configuration snippets of an application, as pure functions.
 */

/** The lines that pass requests for the application's CGI programs, by their names, on to its own socket. */
[[nodiscard]] std::string transfer_text(const std::string& app, const std::vector<std::string>& names);

/** The section that hands requests for the named scripts to the application's FastCGI socket. */
[[nodiscard]] std::string fcgi_text(const std::string& web_directory, const std::string& socket,
                                    const std::vector<std::string>& names);

/** A file of a web directory and the group whose users may ask for it. */
struct WebFile {
    std::string name;
    std::string access_group;
};

/** One directory of an application's web tree with the files directly in it. */
struct WebDirectory {
    std::string path;
    std::vector<WebFile> files;
};

/** The access rules of a web tree: one section for each directory, in the order given. */
[[nodiscard]] std::string access_rules_text(const std::vector<WebDirectory>& directories);
