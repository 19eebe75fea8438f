#include "pack/child.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/descriptors.h"
#include "base/paths.h"
#include "pack/pack-error.h"

static constexpr int kPipeSize = 1 << 20;

// In memory, so that a program that says much never waits for somebody to listen while it is being fed.
static UniqueFd memory_file(const char* name) { return UniqueFd(memfd_create(name, MFD_CLOEXEC)); }

/** What was written to a memory file; nothing when that cannot be read. */
static std::string contents_of(int fd) {
    std::string text;
    if (lseek(fd, 0, SEEK_SET) != 0 || !read_all(fd, &text))
        text.clear();
    return text;
}

Child::~Child() {
    if (pid_ != 0)
        (void)wait();
}

bool Child::start(const std::vector<std::string>& arguments, const std::string* signature,
                  VelkctlError** error) {
    static constexpr int kSignature = 3;
    output_ = memory_file("output");
    errors_ = memory_file("errors");
    const UniqueFd text = memory_file("signature");
    if (!output_ || !errors_ || !text || (signature && !write_all(text.get(), *signature)))
        return fail_with_system_error(error, arguments[0], "cannot be started");
    const std::string text_path = std::string(paths::kOwnDescriptors) + "/" + std::to_string(kSignature);
    std::vector<const char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(argument == "%signature%" ? text_path.c_str() : argument.c_str());
    words.push_back(nullptr);
    const GStringVectorPtr environment(g_environ_setenv(g_get_environ(), "LC_ALL", "C.UTF-8", TRUE));
    const int source[] = {text.get()};
    const int target[] = {kSignature};
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
    GErrorSlot reason;
    int input = -1;
    GPid pid = 0;
    if (!g_spawn_async_with_pipes_and_fds(nullptr, words.data(), environment.get(), flags, nullptr, nullptr,
                                          -1, output_.get(), errors_.get(), source, target, 1, &pid, &input,
                                          nullptr, nullptr, reason.out()))
        return fail_with(error, VELKCTL_ERROR_GENERAL, arguments[0],
                         std::string("cannot be started: ") + reason.message());
    pid_ = pid;
    input_ = UniqueFd(input);
    // Fewer switches between the two processes; a refusal only keeps the pipe smaller.
    (void)fcntl(input, F_SETPIPE_SZ, kPipeSize);
    return true;
}

void Child::feed(std::string_view data) {
    if (input_ && !write_all(input_.get(), data))
        input_.reset();
}

int Child::wait() {
    input_.reset();
    int status = 0;
    const bool is_known = wait_for_child(pid_, &status);
    pid_ = 0;
    output_text_ = contents_of(output_.get());
    error_text_ = contents_of(errors_.get());
    return is_known && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string last_words(const std::string& text) {
    const size_t end = text.find_last_not_of(" \n");
    if (end == std::string::npos)
        return "no reason given";
    const size_t start = text.rfind('\n', end) + 1;  // npos + 1 is the start of the text
    const std::string line = text.substr(start, end - start + 1);
    const size_t colon = line.find(": ");
    const bool has_name = colon != std::string::npos && line.substr(0, colon).find(' ') == std::string::npos;
    return has_name ? line.substr(colon + 2) : line;
}
