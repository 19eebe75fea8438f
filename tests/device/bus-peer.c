/*
 * What the system bus lets its caller do with a name; "refused" and exit status 1 for what it does not.
 *
 *   bus-peer serve NAME   own the name, say "owned", and answer every Ask with "answer"
 *   bus-peer ask NAME     call Ask, and print the answer
 *   bus-peer tell NAME    own the name, send one signal, and say "told"
 *   bus-peer hear NAME    say "listening", and print what the first signal of the owner carries
 */
#include <gio/gio.h>
#include <stdio.h>
#include <string.h>

static const char path[] = "/com/orvo/Param";
static const char interface[] = "com.orvo.Param.ChangeNotification";
static const char description[] =
    "<node><interface name='com.orvo.Param.ChangeNotification'>"
    "<method name='Ask'><arg type='s' direction='out'/></method>"
    "</interface></node>";

static void say(const char* text) {
    puts(text);
    fflush(stdout);
}

static int failed(GError* error) {
    say(g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) ? "refused" : error->message);
    return 1;
}

static void on_call(GDBusConnection* bus, const char* sender, const char* object, const char* name,
                    const char* method, GVariant* arguments, GDBusMethodInvocation* call, gpointer data) {
    (void)bus, (void)sender, (void)object, (void)name, (void)method, (void)arguments, (void)data;
    g_dbus_method_invocation_return_value(call, g_variant_new("(s)", "answer"));
}

static void on_signal(GDBusConnection* bus, const char* sender, const char* object, const char* name,
                      const char* signal, GVariant* arguments, gpointer loop) {
    const char* text = NULL;
    (void)bus, (void)sender, (void)object, (void)name, (void)signal;
    g_variant_get(arguments, "(&s)", &text);
    say(text);
    g_main_loop_quit(loop);
}

static gboolean own(GDBusConnection* bus, const char* name, GError** error) {
    GVariant* reply =
        g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
                                    g_variant_new("(su)", name, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE), NULL,
                                    G_DBUS_CALL_FLAGS_NONE, -1, NULL, error);
    if (reply != NULL) {
        g_variant_unref(reply);
    }
    return reply != NULL;
}

static int serve(GDBusConnection* bus, GMainLoop* loop, const char* name, GError* error) {
    static const GDBusInterfaceVTable table = {on_call, NULL, NULL, {0}};
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(description, &error);
    if (node == NULL ||
        g_dbus_connection_register_object(bus, path, node->interfaces[0], &table, NULL, NULL, &error) == 0 ||
        !own(bus, name, &error)) {
        return failed(error);
    }
    say("owned");
    g_main_loop_run(loop);
    return 0;
}

static int ask(GDBusConnection* bus, const char* name, GError* error) {
    const char* text = NULL;
    GVariant* reply =
        g_dbus_connection_call_sync(bus, name, path, interface, "Ask", NULL, G_VARIANT_TYPE("(s)"),
                                    G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, NULL, &error);
    if (reply == NULL) {
        return failed(error);
    }
    g_variant_get(reply, "(&s)", &text);
    say(text);
    g_variant_unref(reply);
    return 0;
}

static int hear(GDBusConnection* bus, GMainLoop* loop, const char* name) {
    g_dbus_connection_signal_subscribe(bus, name, interface, "Changed", path, NULL, G_DBUS_SIGNAL_FLAGS_NONE,
                                       on_signal, loop, NULL);
    g_dbus_connection_flush_sync(bus, NULL, NULL);
    say("listening");
    g_main_loop_run(loop);
    return 0;
}

static int tell(GDBusConnection* bus, const char* name, GError* error) {
    if (!own(bus, name, &error) ||
        !g_dbus_connection_emit_signal(bus, NULL, path, interface, "Changed", g_variant_new("(s)", "changed"),
                                       &error) ||
        !g_dbus_connection_flush_sync(bus, NULL, &error)) {
        return failed(error);
    }
    say("told");
    return 0;
}

int main(int argc, char** argv) {
    GError* error = NULL;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    if (argc != 3 || bus == NULL) {
        return 2;
    }
    if (strcmp(argv[1], "serve") == 0) {
        return serve(bus, loop, argv[2], error);
    }
    if (strcmp(argv[1], "ask") == 0) {
        return ask(bus, argv[2], error);
    }
    return strcmp(argv[1], "hear") == 0 ? hear(bus, loop, argv[2]) : tell(bus, argv[2], error);
}
