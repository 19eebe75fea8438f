#include "support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/handles.h"
#include "base/log.h"
#include "platform/libovlog.h"

namespace fs = std::filesystem;

namespace test {

TemporaryDirectory::TemporaryDirectory() {
    path_ = fs::canonical(testing::TempDir()).string() + "/velkctl-test-XXXXXX";
    if (!mkdtemp(path_.data()))
        std::abort();
    // Scripts that run as another user must be able to reach what lies in it.
    chmod(path_.c_str(), 0755);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code reason;
    fs::remove_all(path_, reason);
    if (!reason)
        return;
    if (std::system(("chattr -R -i '" + path_ + "' >&- 2>&-; chmod -R u+rwx '" + path_ + "'").c_str()) != 0)
        ADD_FAILURE() << "cannot clean " << path_;
    fs::remove_all(path_, reason);
    EXPECT_FALSE(reason) << path_ << ": " << reason.message();
}

static std::string contents_of(int fd) {
    std::string text;
    char block[4096];
    ssize_t got = 0;
    while ((got = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0)
        text.append(block, static_cast<size_t>(got));
    return text;
}

LogCapture::LogCapture() : fd_(memfd_create("log", MFD_CLOEXEC)) {
    log_setup(LOG_MODE_NULL);
    ov_log_fd(fd_);
}

LogCapture::~LogCapture() {
    ov_log_null();
    close(fd_);
}

std::string LogCapture::text() const { return contents_of(fd_); }

ScopedVariable::ScopedVariable(const char* name, const std::string& value) : name_(name) {
    const char* old_value = std::getenv(name);
    old_value_ = old_value ? old_value : "";
    setenv(name, value.c_str(), 1);
}

ScopedVariable::~ScopedVariable() {
    if (old_value_.empty())
        unsetenv(name_.c_str());
    else
        setenv(name_.c_str(), old_value_.c_str(), 1);
}

ScopedWorkingDirectory::ScopedWorkingDirectory(const std::string& path) : old_path_(fs::current_path()) {
    fs::current_path(path);
}

ScopedWorkingDirectory::~ScopedWorkingDirectory() { fs::current_path(old_path_); }

ChildResult run_child(const std::function<void()>& body) {
    std::fflush(nullptr);  // what the runner has yet to print must not be printed by the child too
    const int output = memfd_create("output", MFD_CLOEXEC);
    const int errors = memfd_create("errors", MFD_CLOEXEC);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(output, 1);
        dup2(errors, 2);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ChildResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                       WIFSIGNALED(status) ? WTERMSIG(status) : 0, contents_of(output), contents_of(errors)};
    close(output);
    close(errors);
    return result;
}

std::string without_line_numbers(const std::string& text) {
    // GLib's matcher: the standard library's warns under the sanitizers.
    static GRegex* const place = g_regex_new("(^|\\n|: )(src/[a-z/-]+\\.(?:cpp|h)):[0-9]+: ", G_REGEX_RAW,
                                             static_cast<GRegexMatchFlags>(0), nullptr);
    const GStringPtr result(g_regex_replace(place, text.data(), static_cast<gssize>(text.size()), 0,
                                            "\\1\\2:N: ", static_cast<GRegexMatchFlags>(0), nullptr));
    return result.get();
}

std::string describe(const ErrorSlot& error) {
    return error.is_set() ? std::to_string(error.code()) + " " + without_line_numbers(error.message())
                          : "none";
}

void write_text(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(chmod(path.c_str(), mode), 0) << path;
}

std::string read_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return file.is_open() ? text.str() : "(unreadable)";
}

mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

bool name_exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> tree_of(const std::string& directory) {
    std::vector<std::string> paths;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory))
        paths.push_back(fs::relative(entry.path().parent_path(), directory) / entry.path().filename());
    for (std::string& path : paths)
        if (path.starts_with("./"))
            path.erase(0, 2);
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool wait_until(const std::function<bool()>& condition) {
    for (int tries = 0; tries < 1000; tries++) {
        if (condition())
            return true;
        usleep(10'000);
    }
    return condition();
}

void shell(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

bool is_root() { return geteuid() == 0; }

bool can_make_immutable(const std::string& directory) {
    const std::string probe = directory + "/immutable-probe";
    write_text(probe, "");
    const bool can = std::system(("chattr +i '" + probe + "' >&- 2>&-").c_str()) == 0 &&
                     std::system(("chattr -i '" + probe + "'").c_str()) == 0;
    fs::remove(probe);
    return can;
}

}  // namespace test
