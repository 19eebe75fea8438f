#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "lifecycle/velkctl-json-validate.h"
#include "support.h"

using test::TemporaryDirectory;
using test::write_text;

/** Exchanges two names over and over, as a process of an application may while root reads them. */
class Exchanger {
  public:
    Exchanger(const std::string& one, const std::string& other) : pid_(fork()) {
        if (pid_ == 0)
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (pid_ == 0)
            (void)renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    }
    Exchanger(const Exchanger&) = delete;
    Exchanger& operator=(const Exchanger&) = delete;
    ~Exchanger() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

  private:
    pid_t pid_;
};

static constexpr int kTries = 400;

/** Search a directory in which one name is now a schema that refuses and now something else. */
class ExchangedSchema : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mkdir((directory_ / "schema").c_str(), 0755), 0);
        write_text(directory_ / "schema/a.json", "not json");
    }
    void search_while_exchanging(const std::string& name, const std::string& other) {
        const test::LogCapture log;
        const Exchanger exchanger(directory_ / name, directory_ / other);
        for (int i = 0; i < kTries && !HasFailure(); i++) {
            std::string message;
            ASSERT_NE(validate_text_against_schema_dir("App", "{}", directory_ / "schema", &message),
                      JSON_VALID);
        }
    }

    TemporaryDirectory directory_;
    TemporaryDirectory elsewhere_;
};

TEST_F(ExchangedSchema, ALinkIsNeverFollowed) {
    write_text(elsewhere_ / "accepts.json", "true");
    ASSERT_EQ(symlink((elsewhere_ / "accepts.json").c_str(), (directory_ / "other").c_str()), 0);
    search_while_exchanging("schema/a.json", "other");
}

TEST_F(ExchangedSchema, APipeIsNeverWaitedFor) {
    ASSERT_EQ(mkfifo((directory_ / "other").c_str(), 0644), 0);
    alarm(120);
    search_while_exchanging("schema/a.json", "other");
    alarm(0);
}

TEST_F(ExchangedSchema, ADirectoryThatBecomesALinkIsNeverFollowed) {
    write_text(elsewhere_ / "accepts.json", "true");
    ASSERT_EQ(mkdir((directory_ / "schema/below").c_str(), 0755), 0);
    ASSERT_EQ(symlink(elsewhere_.path().c_str(), (directory_ / "other").c_str()), 0);
    search_while_exchanging("schema/below", "other");
}

TEST_F(ExchangedSchema, TheDirectoryItselfIsNoLink) {
    write_text(elsewhere_ / "accepts.json", "true");
    ASSERT_EQ(symlink(elsewhere_.path().c_str(), (directory_ / "link").c_str()), 0);
    std::string message;
    EXPECT_EQ(validate_text_against_schema_dir("App", "{}", directory_ / "link", &message),
              JSON_DIRECTORY_UNUSABLE);
    EXPECT_FALSE(schema_dir_has_schemas(directory_ / "link"));
    write_text(elsewhere_ / "input", "{}");
    EXPECT_EQ(validate_file_against_schema_dir(elsewhere_ / "input", directory_ / "link", &message),
              JSON_VALID);
}

TEST_F(ExchangedSchema, ASchemaWithoutEndIsNotReadIntoMemory) {
    ASSERT_EQ(truncate((directory_ / "schema/a.json").c_str(), off_t{1} << 40), 0);
    const test::LogCapture log;
    std::string message;
    EXPECT_EQ(validate_text_against_schema_dir("App", "{}", directory_ / "schema", &message), JSON_NOT_VALID);
    const std::string schema = directory_ / "schema/a.json";
    EXPECT_EQ(log.text(),
              "Failed to validate App using schema file " + schema + ": Failed to read " + schema + "\n");
}
