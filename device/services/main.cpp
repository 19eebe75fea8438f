// The camera's device information and user management, on the real system bus. One call at a time, one
// process.

#include <sys/stat.h>

#include <cstdlib>

#include "bus.h"

namespace {

void take_name(GDBusConnection* bus, const char* name) {
    g_bus_own_name_on_connection(
        bus, name, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, nullptr,
        [](GDBusConnection*, const char* lost, gpointer) {
            g_printerr("The name %s is not to be had\n", lost);
            std::exit(EXIT_FAILURE);
        },
        nullptr, nullptr);
}

}  // namespace

int main() {
    umask(022);
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr) {
        g_printerr("No system bus: %s\n", error->message);
        return EXIT_FAILURE;
    }
    // The objects first: who sees a name on the bus may call at once.
    orvo::publish_device_info(bus);
    orvo::publish_user_management(bus);
    take_name(bus, "com.orvo.BasicDeviceInfo1");
    take_name(bus, "com.orvo.UserManagement1");
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
