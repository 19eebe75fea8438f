#include "system/systemctl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "support.h"

using test::describe;

/** A service manager that writes down what it is told and exits as the test wishes. */
class Systemctl : public testing::Test {
  protected:
    void SetUp() override { answer(0); }

    void answer(int status) {
        test::write_text(directory / "systemctl",
                         "#!/bin/sh\necho \"$*\" >> '" + told + "'\nexit " + std::to_string(status) + "\n",
                         0755);
        test::write_text(told, "");
        errno = 0;
    }

    static std::string failed(const std::string& line) {
        return "10 src/system/subprocess.cpp:N: Failed running \"" + line + "\"";
    }

    test::TemporaryDirectory directory;
    const std::string told = directory / "told";
    const test::ScopedVariable path{"PATH", directory.path() + ":" + std::getenv("PATH")};
    ErrorSlot error;
};

TEST_F(Systemctl, IsToldTheVerbAndTheUnitsFileName) {
    EXPECT_TRUE(systemctl_enable("sdkMyApp.service", error));
    EXPECT_TRUE(systemctl_disable("/some/where/sdkMyApp.service", error));
    EXPECT_TRUE(systemctl_start("a/b.mount", error));
    EXPECT_TRUE(systemctl_stop("b-c.mount", error));
    EXPECT_TRUE(systemctl_restart("sdkMyApp.service", error));
    EXPECT_TRUE(systemctl_daemon_reload(error));
    EXPECT_TRUE(systemctl_reload_web_server(error));
    EXPECT_EQ(test::read_text(told),
              "enable --quiet sdkMyApp.service\n"
              "disable --quiet sdkMyApp.service\n"
              "start --quiet b.mount\n"
              "stop --quiet b-c.mount\n"
              "restart --quiet sdkMyApp.service\n"
              "daemon-reload\n"
              "reload httpd\n");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Systemctl, ThatFailsIsReportedWithTheLine) {
    const auto expect_failure = [this](bool result, const std::string& line) {
        EXPECT_FALSE(result);
        EXPECT_EQ(describe(error), failed(line));
        error.clear();
        errno = 0;
    };
    answer(1);
    expect_failure(systemctl_enable("x.service", error), "systemctl enable --quiet 'x.service'");
    expect_failure(systemctl_disable("x.service", error), "systemctl disable --quiet 'x.service'");
    expect_failure(systemctl_start("x.service", error), "systemctl start --quiet 'x.service'");
    expect_failure(systemctl_stop("x.service", error), "systemctl stop --quiet 'x.service'");
    expect_failure(systemctl_restart("x.service", error), "systemctl restart --quiet 'x.service'");
    expect_failure(systemctl_daemon_reload(error), "systemctl daemon-reload");
    expect_failure(systemctl_reload_web_server(error), "systemctl reload httpd");
}

TEST_F(Systemctl, TellsWhetherAnApplicationIsActive) {
    EXPECT_EQ(is_application_active("MyApp", error), true);
    EXPECT_EQ(test::read_text(told), "is-active --quiet sdkMyApp.service\n");
    for (const int status : {1, 3, 4, 255}) {
        answer(status);
        EXPECT_EQ(is_application_active("MyApp", error), false) << status;
    }
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Systemctl, ThatCannotBeAskedIsAnError) {
    EXPECT_EQ(is_application_active("My App", error), std::nullopt);
    EXPECT_EQ(describe(error),
              "10 src/system/systemctl.cpp:N: Failed running: systemctl is-active --quiet sdkMy App.service");
    EXPECT_EQ(test::read_text(told), "");
    EXPECT_EQ(is_application_active("My App", nullptr), std::nullopt);
}

TEST_F(Systemctl, KeepsARunningApplicationFromBeingChanged) {
    EXPECT_FALSE(require_application_stopped("MyApp", "backup", error));
    EXPECT_EQ(describe(error),
              "10 Application MyApp is still running, please stop it before running backup.");
    error.clear();
    EXPECT_FALSE(require_application_stopped("My App", "backup", error));
    EXPECT_EQ(describe(error),
              "10 src/system/systemctl.cpp:N: Failed running: systemctl is-active --quiet sdkMy App.service");
    error.clear();
    answer(3);
    EXPECT_TRUE(require_application_stopped("MyApp", "backup", error));
    EXPECT_EQ(describe(error), "none");
}
