#pragma once

#include <sys/types.h>

#include <string>

#include "base/velkctl-error.h"

/** Whether the application directory holds both container tools. */
[[nodiscard]] bool holds_container_tools(const std::string& directory);

/**
 * Make the device's container commands those of the application, taking them over from another one.
 *
 * @param error  code 10; stops at the first failure
 */
[[nodiscard]] bool create_container_links(const std::string& directory, const std::string& user,
                                          VelkctlError** error);

/** Remove the commands that are this application's, and the link to the containers' socket of its user; those
 * of others, and a socket of the system, stay. Code 10. */
[[nodiscard]] bool remove_container_links(const std::string& app, const std::string& directory,
                                          VelkctlError** error);

/** Where the containers of the user have their socket, which the device's link leads to. */
[[nodiscard]] std::string container_socket(uid_t uid);
