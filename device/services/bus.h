#pragma once

#include <gio/gio.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvo {

/** A failure as the caller of a method sees it: the last word of the D-Bus error's name, and its text. */
struct Failure {
    std::string name;
    std::string text;
};

/** What a method gives back: nothing, or why it failed. */
using Outcome = std::optional<Failure>;

/** The string array at `index` of a method's arguments. */
std::vector<std::string> strings_at(GVariant* arguments, gsize index);

/** The string at `index` of a method's arguments. */
std::string string_at(GVariant* arguments, gsize index);

/**
 * Let a test make a method fail: the text of the file /run/orvo-test/fail/<method>, which only root can
 * write, is the failure. No such file is no failure.
 */
Outcome wanted_failure(const std::string& method);

/** Answer a call with an error named `<service>.Error.<name>`. */
void answer_failure(GDBusMethodInvocation* call, const char* service, const Failure& failure);

/** Put an object on the bus; a fault in `xml` or a path already taken ends the program. */
void publish(GDBusConnection* bus, const char* path, const char* xml, const GDBusInterfaceVTable& methods);

/** com.orvo.BasicDeviceInfo1 */
void publish_device_info(GDBusConnection* bus);

/** com.orvo.UserManagement1 */
void publish_user_management(GDBusConnection* bus);

}  // namespace orvo
