#include "lifecycle/schema-process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <nlohmann/json-schema.hpp>
#include <stdexcept>

#include "base/descriptors.h"
#include "base/handles.h"
#include "base/paths.h"
#include "base/velkctl-error.h"
#include "lifecycle/iri.h"

namespace {

using nlohmann::json;

struct Answer {
    int result;
    std::string message;
};

Answer failed(int result, std::string reason) {
    while (!reason.empty() && reason.back() == '\n')
        reason.pop_back();
    return {result, "Validation failed - " + reason};
}

// --- In the child ---

/** The library recurses over the levels of schema and document, and keeps the way to each of them. */
bool nests_deeper_than(const std::string& text, unsigned limit) {
    unsigned depth = 0;
    bool in_string = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char character = text[i];
        if (in_string && character == '\\')
            i++;
        else if (character == '"')
            in_string = !in_string;
        else if (!in_string && (character == '[' || character == '{') && ++depth > limit)
            return true;
        else if (!in_string && (character == ']' || character == '}') && depth > 0)
            depth--;
    }
    return false;
}

json parse_checked(const std::string& text, unsigned nesting) {
    if (nests_deeper_than(text, nesting))
        throw std::invalid_argument("more than " + std::to_string(nesting) + " levels of nesting");
    return json::parse(text);
}

void check_format(const std::string& format, const std::string& value) {
    if (format == "iri" && !iri_to_uri(value))
        throw std::invalid_argument(value + " is not valid iri");
}

Answer validate(const std::string& input, const std::string& schema, unsigned nesting) {
    int stage = JSON_SCHEMA_UNUSABLE;
    try {
        nlohmann::json_schema::json_validator validator(nullptr, check_format);
        validator.set_root_schema(parse_checked(schema, nesting));
        stage = JSON_INPUT_UNUSABLE;
        const json document = parse_checked(input, nesting);
        stage = JSON_NOT_VALID;
        validator.validate(document);
        return {JSON_VALID, ""};
    } catch (const std::exception& reason) {
        return failed(stage, reason.what());
    } catch (...) {
        return failed(stage, "unknown error");
    }
}

void set_limit(__rlimit_resource resource, rlim_t value) {
    struct rlimit limit = {};
    if (getrlimit(resource, &limit) != 0)
        return;
    limit.rlim_cur = std::min(value, limit.rlim_max);
    setrlimit(resource, &limit);
}

/** The size of the process's private memory, which the system compares with its data limit. */
[[maybe_unused]] rlim_t data_size() {
    unsigned long pages = 0;
    const FilePtr file(std::fopen((std::string(paths::kProcesses) + "/self/statm").c_str(), "re"));
    if (!file || std::fscanf(file.get(), "%*u %*u %*u %*u %*u %lu", &pages) != 1)
        return 0;
    return pages * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

void apply_limits(const ValidationLimits& limits) {
    // A stack that runs over ends the child silently: the parent has the message.
    std::signal(SIGSEGV, SIG_DFL);
    std::signal(SIGBUS, SIG_DFL);
    set_limit(RLIMIT_CORE, 0);
    set_limit(RLIMIT_STACK, limits.stack_bytes);
    set_limit(RLIMIT_CPU, limits.processor_seconds);
#ifndef __SANITIZE_ADDRESS__  // the sanitizer needs memory of its own, and hangs where it gets none
    set_limit(RLIMIT_DATA, data_size() + limits.memory_bytes);
#endif
}

[[noreturn]] void run_child(int fd, const std::string& input, const std::string& schema,
                            const ValidationLimits& limits) {
    apply_limits(limits);
    const Answer answer = validate(input, schema, limits.nesting);
    const char result = static_cast<char>(answer.result);
    const bool written = write_all(fd, {&result, 1}) && write_all(fd, answer.message);
    _exit(written ? 0 : 1);
}

// --- In the parent ---

Answer explain_death(int status, const ValidationLimits& limits) {
    const int number = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    if (number == SIGXCPU || number == SIGKILL)
        return failed(JSON_NOT_VALID, "it takes more than " + std::to_string(limits.processor_seconds) +
                                          " s of processor time");
    if (number == SIGSEGV || number == SIGBUS)
        return failed(JSON_NOT_VALID,
                      "the schema recurses without end or takes too much stack on this document");
    return failed(JSON_NOT_VALID, "the validation ended with status " + std::to_string(status));
}

Answer ask_child(const std::string& input, const std::string& schema, const ValidationLimits& limits) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0)
        return failed(JSON_NOT_VALID, system_error_text());
    const UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    const pid_t child = fork();
    if (child < 0)
        return failed(JSON_NOT_VALID, system_error_text());
    if (child == 0)
        run_child(write_end.get(), input, schema, limits);
    write_end.reset();
    std::string answer;
    const bool is_read = read_all(read_end.get(), &answer);
    const int read_errno = errno;
    int status = 0;
    if (!wait_for_child(child, &status))
        return failed(JSON_NOT_VALID, system_error_text());
    if (!is_read)
        return failed(JSON_NOT_VALID, system_error_text(read_errno));
    if (status != 0 || answer.empty())
        return explain_death(status, limits);
    return {answer[0], answer.substr(1)};
}

}  // namespace

int validate_in_process(const std::string& input, const std::string& schema, const ValidationLimits& limits,
                        std::string* message) {
    Answer answer = ask_child(input, schema, limits);
    if (answer.result != JSON_VALID)
        *message = std::move(answer.message);
    return answer.result;
}
