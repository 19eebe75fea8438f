#include "system/dbus-call.h"

using ConnectionPtr = std::unique_ptr<GDBusConnection, ReleaseWith<g_object_unref>>;

VariantPtr dbus_call(const char* bus_name, const char* object_path, const char* interface, const char* method,
                     GVariant* parameters, VelkctlError** error) {
    const VariantPtr sunk(parameters ? g_variant_ref_sink(parameters) : nullptr);
    GErrorSlot reason;
    const ConnectionPtr connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, reason.out()));
    if (!connection) {
        SET_GENERAL_ERROR(error, "Failed connecting to system bus: %s", reason.message());
        return nullptr;
    }
    // A bus that goes away must end the call, not the process.
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    VariantPtr reply(g_dbus_connection_call_sync(connection.get(), bus_name, object_path, interface, method,
                                                 sunk.get(), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                                                 reason.out()));
    if (!reply) {
        g_dbus_error_strip_remote_error(reason.get());
        SET_GENERAL_ERROR(error, "DBus call to %s.%s failed: %s", interface, method, reason.message());
    }
    return reply;
}

bool dbus_reload_config(VelkctlError** error) {
    return dbus_call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReloadConfig",
                     nullptr, error) != nullptr;
}

std::optional<std::string> device_information(const char* key, VelkctlError** error) {
    const char* keys[] = {key, nullptr};
    const VariantPtr reply =
        dbus_call("com.orvo.BasicDeviceInfo1", "/com/orvo/BasicDeviceInfo1", "com.orvo.BasicDeviceInfo1",
                  "Get", g_variant_new("(^as)", keys), error);
    if (!reply)
        return std::nullopt;
    const bool has_child = g_variant_is_container(reply.get()) && g_variant_n_children(reply.get()) > 0;
    const VariantPtr values(has_child ? g_variant_get_child_value(reply.get(), 0) : nullptr);
    const bool is_dictionary = values && g_variant_is_of_type(values.get(), G_VARIANT_TYPE_DICTIONARY);
    const VariantPtr value(is_dictionary ? g_variant_lookup_value(values.get(), key, G_VARIANT_TYPE_STRING)
                                         : nullptr);
    if (!value) {
        SET_GENERAL_ERROR(error, "%s key not found in BasicDeviceInfo1 response", key);
        return std::nullopt;
    }
    return g_variant_get_string(value.get(), nullptr);
}
