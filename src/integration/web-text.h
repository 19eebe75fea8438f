#pragma once

#include <string>
#include <vector>

/*
 * The web server's configuration snippets of an application, as pure functions.
 */

/**
 * Whether the web server would see one of its variables in the name, and put in the value that it has. In the
 * name of a section this is kept off; in an address it cannot be.
 */
[[nodiscard]] bool names_variable(const std::string& name);

/** Whether the server takes a section for a name, or an address, of this length: it refuses its whole
 * configuration else. */
[[nodiscard]] bool fits_configuration(const std::string& name);

/** The address of an application's CGI program. */
[[nodiscard]] std::string transfer_address(const std::string& app, const std::string& name);

/** The lines that pass requests for the application's CGI programs, by their names, on to its own socket. */
[[nodiscard]] std::string transfer_text(const std::string& app, const std::vector<std::string>& names);

/** How transfer_text begins for the application. */
[[nodiscard]] std::string transfer_mark(const std::string& app);

/** How fcgi_text begins for the web directory, and the access rules of the tree whose root it is. */
[[nodiscard]] std::string directory_mark(const std::string& web_directory);

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
