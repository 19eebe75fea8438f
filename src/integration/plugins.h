#pragma once

#include <string>

#include "base/velkctl-error.h"

/**
 * Tell every plug-in of the device about the installed application.
 *
 * @param function  "validate", "config" or "remove"
 * @param error     code 10 when the application's user cannot be told or a plug-in refuses, with its code and
 * text; that of the manifest when it cannot be read
 */
[[nodiscard]] bool call_plugins(const std::string& app, const char* function, VelkctlError** error);
