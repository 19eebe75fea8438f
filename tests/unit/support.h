#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/*
 * What the unit tests share. Nothing here touches a path outside the test's own temporary directory.
 */
namespace test {

/** A directory of the test's own, gone with its scope, immutable files included. */
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    [[nodiscard]] const std::string& path() const { return path_; }
    /** The path of `name` in it. */
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/** Collects the log while it lives; afterwards log lines are discarded. Lines of forked children are
 * collected too. */
class LogCapture {
  public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    /** Everything logged so far. */
    [[nodiscard]] std::string text() const;

  private:
    int fd_;
};

/** A variable of the environment, set for the time of a scope. */
class ScopedVariable {
  public:
    ScopedVariable(const char* name, const std::string& value);
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable();

  private:
    std::string name_;
    std::string old_value_;
};

/** The working directory, changed for the time of a scope. */
class ScopedWorkingDirectory {
  public:
    explicit ScopedWorkingDirectory(const std::string& path);
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;
    ~ScopedWorkingDirectory();

  private:
    std::string old_path_;
};

/** How a child process ended and what it wrote. */
struct ChildResult {
    int exit_status;  ///< -1 when a signal ended it
    int signal;       ///< 0 when it exited
    std::string output;
    std::string errors;
};

/** Run `body` in a child process, which exits 0 when the body returns. */
ChildResult run_child(const std::function<void()>& body);

/**
 * The record in the slot as "CODE MESSAGE", with the line number of a place in the source replaced by "N":
 * "10 src/system/file.cpp:N: Failed opening ...". "none" for an empty slot.
 */
std::string describe(const ErrorSlot& error);

/** The same replacement in any text, in each of its lines. */
std::string without_line_numbers(const std::string& text);

void write_text(const std::string& path, const std::string& text, mode_t mode = 0644);
/** The contents, or "(unreadable)". */
std::string read_text(const std::string& path);
/** The low twelve mode bits, links not followed. */
mode_t mode_of(const std::string& path);
/** Whether anything has the name, a dangling link included. */
bool name_exists(const std::string& path);
/** Every path below the directory, relative to it, sorted. */
std::vector<std::string> tree_of(const std::string& directory);
/** Wait until `condition` holds, ten seconds at most; whether it came to hold. */
bool wait_until(const std::function<bool()>& condition);
/** Run a shell command of the test's own set-up; fails the test when it does not exit 0. */
void shell(const std::string& command);

bool is_root();
/** Whether files in `directory` can be made immutable: the user may, and the file system knows the attribute.
 */
bool can_make_immutable(const std::string& directory);

}  // namespace test

/** Skip what only root may do. */
#define SKIP_UNLESS_ROOT() \
    if (!test::is_root())  \
    GTEST_SKIP() << "needs root"
