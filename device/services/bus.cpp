#include "bus.h"

namespace orvo {

std::vector<std::string> strings_at(GVariant* arguments, gsize index) {
    GVariant* list = g_variant_get_child_value(arguments, index);
    std::vector<std::string> strings;
    GVariantIter items;
    const char* text = nullptr;
    g_variant_iter_init(&items, list);
    while (g_variant_iter_next(&items, "&s", &text) != FALSE) {
        strings.emplace_back(text);
    }
    g_variant_unref(list);
    return strings;
}

std::string string_at(GVariant* arguments, gsize index) {
    const char* text = nullptr;
    g_variant_get_child(arguments, index, "&s", &text);
    return text;
}

Outcome wanted_failure(const std::string& method) {
    const std::string path = "/run/orvo-test/fail/" + method;
    char* text = nullptr;
    if (g_file_get_contents(path.c_str(), &text, nullptr, nullptr) == FALSE) {
        return std::nullopt;
    }
    Failure failure{"Wanted", g_strchomp(text)};
    g_free(text);
    return failure;
}

void answer_failure(GDBusMethodInvocation* call, const char* service, const Failure& failure) {
    const std::string name = std::string(service) + ".Error." + failure.name;
    g_message("%s: %s", name.c_str(), failure.text.c_str());
    g_dbus_method_invocation_return_dbus_error(call, name.c_str(), failure.text.c_str());
}

void publish(GDBusConnection* bus, const char* path, const char* xml, const GDBusInterfaceVTable& methods) {
    GError* error = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, &error);
    g_assert_no_error(error);
    g_dbus_connection_register_object(bus, path, node->interfaces[0], &methods, nullptr, nullptr, &error);
    g_assert_no_error(error);
    g_dbus_node_info_unref(node);
}

}  // namespace orvo
