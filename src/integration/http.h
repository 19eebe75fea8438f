#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/** The FastCGI socket of the application whose directory is `directory`. */
[[nodiscard]] std::string fcgi_socket_path(const std::string& directory, const std::string& app);

/**
 * Publish the application's `html` directory, write the web server's snippets for its CGI entries and the
 * access rules of its files, and give the files to the web server's group.
 *
 * @param directory         the application directory
 * @param layer_file_store  the files' groups and modes are then those of the mount and stay as they are
 * @param error             code 1 for a reserved directory that is a link or a CGI name that leads out of the
 *                          application directory; code 29 "Field '%s' in manifest contains a variable of the
 *                          web server" for a CGI address that cannot be written; code 10 otherwise: also for
 *                          names that are taken by what is not the application's own, which stays, and for
 *                          pages of which the server would refuse the rules. What was made stays, for
 *                          teardown.
 */
[[nodiscard]] bool setup_http(const ParsedManifest& parsed, const std::string& directory,
                              bool layer_file_store, const std::string& user, const std::string& group,
                              VelkctlError** error);

/**
 * Remove what setup_http made, and the directory of the application's own socket. What has a name of it and
 * is another's stays.
 *
 * @param user   the application's user; without one a socket directory of a present user stays
 * @param error  code 10 of the first removal that failed; each is tried, and what is not there is no failure
 */
[[nodiscard]] bool teardown_http(const std::string& directory, const std::string& app,
                                 const std::optional<std::string>& user, VelkctlError** error);

/** Let the web server read its configuration again; when that fails wait 5 seconds and start it. Only logs
 * failures. */
void reload_web_server();
