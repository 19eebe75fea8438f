#include <fstream>
#include <map>

#include "bus.h"

namespace orvo {
namespace {

constexpr const char* service = "com.orvo.BasicDeviceInfo1";
constexpr const char* path = "/com/orvo/BasicDeviceInfo1";
constexpr const char* file = "/etc/orvo/device-info";
constexpr const char* interface = R"(
<node>
  <interface name="com.orvo.BasicDeviceInfo1">
    <method name="Get">
      <arg name="keys" type="as" direction="in"/>
      <arg name="values" type="a{ss}" direction="out"/>
    </method>
  </interface>
</node>)";

/** The lines KEY=VALUE of the file, read at each call so that a test can make the device another one. */
std::optional<std::map<std::string, std::string>> read_values() {
    std::ifstream lines(file);
    if (!lines) {
        return std::nullopt;
    }
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos && line.front() != '#') {
            values[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return values;
}

void get(GVariant* arguments, GDBusMethodInvocation* call) {
    const auto values = read_values();
    if (!values) {
        answer_failure(call, service, {"Unreadable", std::string(file) + " cannot be read"});
        return;
    }
    GVariantBuilder answer;
    g_variant_builder_init(&answer, G_VARIANT_TYPE("a{ss}"));
    for (const auto& key : strings_at(arguments, 0)) {
        const auto found = values->find(key);
        if (found != values->end()) {
            g_variant_builder_add(&answer, "{ss}", key.c_str(), found->second.c_str());
        }
    }
    g_dbus_method_invocation_return_value(call, g_variant_new("(a{ss})", &answer));
}

void on_call(GDBusConnection*, const char*, const char*, const char*, const char* method, GVariant* arguments,
             GDBusMethodInvocation* call, gpointer) {
    if (const auto failure = wanted_failure(method)) {
        answer_failure(call, service, *failure);
        return;
    }
    get(arguments, call);
}

constexpr GDBusInterfaceVTable methods = {on_call, nullptr, nullptr, {}};

}  // namespace

void publish_device_info(GDBusConnection* bus) { publish(bus, path, interface, methods); }

}  // namespace orvo
