#include "system/dbus-call.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "support.h"

using test::describe;
using testing::StartsWith;

static constexpr const char* kService = "com.orvo.BasicDeviceInfo1";
static constexpr const char* kObject = "/com/orvo/BasicDeviceInfo1";

static void answer(GDBusConnection*, const char*, const char*, const char*, const char* method,
                   GVariant* parameters, GDBusMethodInvocation* invocation, void*) {
    if (std::string(method) == "Refuse") {
        g_dbus_method_invocation_return_dbus_error(invocation, "com.orvo.Error.Refused", "not today");
        return;
    }
    const char* key = nullptr;
    const VariantPtr keys(g_variant_get_child_value(parameters, 0));
    g_variant_get_child(keys.get(), 0, "&s", &key);
    GVariantBuilder values;
    g_variant_builder_init(&values, G_VARIANT_TYPE("a{sv}"));
    if (std::string(key) == "Version")
        g_variant_builder_add(&values, "{sv}", "Version", g_variant_new_string("11.2.3"));
    if (std::string(key) == "Number")
        g_variant_builder_add(&values, "{sv}", "Number", g_variant_new_int32(5));
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(a{sv})", &values));
}

static void name_is_ours(GDBusConnection*, const char*, void* ready) {
    test::write_text(static_cast<char*>(ready), "x");
}

/** The device information service on the bus at `address`; writes the file `ready` when it answers. */
[[noreturn]] static void serve(const std::string& address, std::string ready) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
        "<node><interface name='com.orvo.BasicDeviceInfo1'><method name='Refuse'/>"
        "<method name='Get'><arg type='as' direction='in'/><arg type='a{sv}' direction='out'/></method>"
        "</interface></node>",
        nullptr);
    static const GDBusInterfaceVTable table{answer, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection, kObject, node->interfaces[0], &table, nullptr, nullptr,
                                      nullptr);
    g_bus_own_name_on_connection(connection, kService, G_BUS_NAME_OWNER_FLAGS_NONE, name_is_ours, nullptr,
                                 ready.data(), nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    std::abort();
}

/** A bus of the test's own in the place of the system bus, with one service on it. */
class DBusCall : public testing::Test {
  protected:
    void SetUp() override {
        test::write_text(
            directory / "bus.conf",
            "<busconfig><type>custom</type><listen>" + address +
                "</listen><auth>EXTERNAL</auth><policy context='default'>"
                "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/><allow own='*'/>"
                "</policy></busconfig>");
        daemon_ = fork();
        if (daemon_ == 0) {
            close(2);  // its remarks
            const std::string configuration = "--config-file=" + (directory / "bus.conf");
            execlp("dbus-daemon", "dbus-daemon", configuration.c_str(), "--nofork", "--nopidfile", nullptr);
            _exit(127);
        }
        const bool is_listening = test::wait_until([this] {
            int status = 0;
            return test::name_exists(directory / "bus") || waitpid(daemon_, &status, WNOHANG) != 0;
        });
        if (!is_listening || !test::name_exists(directory / "bus")) {
            daemon_ = -1;
            GTEST_SKIP() << "needs dbus-daemon";
        }
        service_ = fork();
        if (service_ == 0)
            serve(address, directory / "ready");
        ASSERT_TRUE(test::wait_until([this] { return test::name_exists(directory / "ready"); }));
    }

    void TearDown() override {
        for (const pid_t pid : {service_, daemon_})
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
    }

    /** What `body` prints in a process that takes this bus for the system bus. */
    std::string on_the_bus(const std::function<void(ErrorSlot&)>& body) {
        const test::ScopedVariable bus("DBUS_SYSTEM_BUS_ADDRESS", address);
        const test::ChildResult result = test::run_child([&] {
            ErrorSlot error;
            body(error);
            std::printf("%s", describe(error).c_str());
        });
        EXPECT_EQ(result.exit_status, 0) << result.errors;
        return result.output;
    }

    test::TemporaryDirectory directory;
    const std::string address = "unix:path=" + (directory / "bus");
    pid_t daemon_ = -1;
    pid_t service_ = -1;
};

TEST_F(DBusCall, GivesAValueOfTheDevice) {
    EXPECT_EQ(on_the_bus([](ErrorSlot& error) {
                  std::printf("%s ", device_information("Version", error).value_or("nothing").c_str());
              }),
              "11.2.3 none");
}

TEST_F(DBusCall, CanBeMadeTwice) {
    EXPECT_EQ(on_the_bus([](ErrorSlot& error) {
                  std::printf("%s ", device_information("Version", error).value_or("nothing").c_str());
                  std::printf("%s ", device_information("Version", error).value_or("nothing").c_str());
              }),
              "11.2.3 11.2.3 none");
}

TEST_F(DBusCall, ForAValueThatIsMissingOrNoTextIsAnError) {
    for (const char* key : {"SerialNumber", "Number"})
        EXPECT_EQ(on_the_bus([key](ErrorSlot& error) {
                      std::printf("%s ", device_information(key, error).value_or("nothing").c_str());
                  }),
                  std::string("nothing 10 src/system/dbus-call.cpp:N: ") + key +
                      " key not found in BasicDeviceInfo1 response");
}

TEST_F(DBusCall, ThatTheServiceRefusesCarriesTheServicesOwnText) {
    EXPECT_EQ(
        on_the_bus([](ErrorSlot& error) {
            const VariantPtr reply = dbus_call(kService, kObject, kService, "Refuse", nullptr, error);
            std::printf("%d ", reply != nullptr);
        }),
        "0 10 src/system/dbus-call.cpp:N: DBus call to com.orvo.BasicDeviceInfo1.Refuse failed: not today");
}

TEST_F(DBusCall, ToAServiceThatIsAbsentFails) {
    EXPECT_THAT(
        on_the_bus([](ErrorSlot& error) {
            const VariantPtr reply =
                dbus_call("com.orvo.Absent", "/x", "com.orvo.Absent", "Do", g_variant_new("(s)", "x"), error);
            std::printf("%d ", reply != nullptr);
        }),
        StartsWith("0 10 src/system/dbus-call.cpp:N: DBus call to com.orvo.Absent.Do failed: The name "));
}

TEST_F(DBusCall, MakesTheBusReadItsConfigurationAgain) {
    EXPECT_EQ(on_the_bus([](ErrorSlot& error) { std::printf("%d ", dbus_reload_config(error)); }), "1 none");
    test::write_text(directory / "bus.conf", "broken");
    EXPECT_THAT(
        on_the_bus([](ErrorSlot& error) { std::printf("%d ", dbus_reload_config(error)); }),
        StartsWith(
            "0 10 src/system/dbus-call.cpp:N: DBus call to org.freedesktop.DBus.ReloadConfig failed: "));
}

TEST(DBusCallWithoutABus, FailsAndConsumesItsParameters) {
    const test::TemporaryDirectory directory;
    const test::ScopedVariable bus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (directory / "none"));
    const test::ChildResult result = test::run_child([] {
        ErrorSlot error;
        GVariant* parameters = g_variant_new("(s)", "x");
        g_variant_ref(parameters);
        const VariantPtr reply = dbus_call("a.b", "/x", "a.b", "Do", parameters, error);
        std::printf("%d %d %s", reply != nullptr, g_variant_is_floating(parameters), describe(error).c_str());
    });
    EXPECT_THAT(
        result.output,
        StartsWith("0 0 10 src/system/dbus-call.cpp:N: Failed connecting to system bus: Could not connect"));
}
