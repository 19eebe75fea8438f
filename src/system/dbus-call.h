#pragma once

#include <optional>
#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"

/**
 * Call a method on the system bus and wait for its reply.
 *
 * @param parameters  the argument tuple, or null for none; consumed on every path
 * @param error       code 10 "Failed connecting to system bus: %s" or "DBus call to %s.%s failed: %s" with
 * interface, method and the service's own text
 * @return the reply tuple, or null on failure
 */
[[nodiscard]] VariantPtr dbus_call(const char* bus_name, const char* object_path, const char* interface,
                                   const char* method, GVariant* parameters, VelkctlError** error);

/** Ask the bus to read its configuration again. */
[[nodiscard]] bool dbus_reload_config(VelkctlError** error);

/**
 * A value of the device information service, such as "Version" or "SerialNumber".
 *
 * @param error  that of dbus_call, or code 10 "%s key not found in BasicDeviceInfo1 response"
 */
[[nodiscard]] std::optional<std::string> device_information(const char* key, VelkctlError** error);
