#include "lifecycle/velkctl-json-validate.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "lifecycle/schema-process.h"
#include "system/file.h"

static constexpr size_t kSchemaLimit = 16 << 20;

static std::optional<std::string> read_or_explain(const std::string& path, const char* what,
                                                  std::string* message) {
    ErrorSlot reason;
    std::optional<std::string> text = read_file(path, reason);
    if (!text)
        *message = what + path;
    return text;
}

int validate_against_schema_file(const std::string& input_text, const std::string& schema_path,
                                 std::string* message, const ValidationLimits& limits) {
    const std::optional<std::string> schema = read_or_explain(schema_path, "Failed to read ", message);
    if (!schema)
        return JSON_SCHEMA_UNUSABLE;
    return validate_in_process(input_text, *schema, limits, message);
}

int validate_file_against_schema(const std::string& input_path, const std::string& schema_path,
                                 std::string* message) {
    const std::optional<std::string> input = read_or_explain(input_path, "Failed to read input ", message);
    return input ? validate_against_schema_file(*input, schema_path, message) : JSON_INPUT_UNUSABLE;
}

// The schemas of an application lie where it may exchange any of them at any moment, for a link to another
// file or for a pipe: what is opened is what is looked at and read.
static constexpr int kOpenEntry = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
static constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/** The entries of an open directory, by a descriptor of their own. */
static DirectoryPtr entries_of(const UniqueFd& directory) {
    const int fd = directory ? fcntl(directory.get(), F_DUPFD_CLOEXEC, 0) : -1;
    DirectoryPtr entries(fd >= 0 ? fdopendir(fd) : nullptr);
    if (fd >= 0 && !entries)
        close(fd);
    return entries;
}

/** What is told of each schema: its path, and what was opened there. Returns whether the search is over. */
using SchemaVisit = std::function<bool(const std::string& path, int schema)>;

/**
 * Visit the schemas of a directory and of those below it, until `visit` returns true; whether it did. What
 * cannot be opened is passed over.
 */
static bool visit_schemas(DIR* directory, const std::string& path, const SchemaVisit& visit) {
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        const std::string child = path + "/" + name;
        if (name == "." || name == "..")
            continue;
        const UniqueFd fd(openat(dirfd(directory), name.c_str(), kOpenEntry));
        struct stat status = {};
        if (!fd || fstat(fd.get(), &status) != 0)
            continue;
        if (S_ISREG(status.st_mode) && visit(child, fd.get()))
            return true;
        if (!S_ISDIR(status.st_mode))
            continue;
        const DirectoryPtr below = entries_of(fd);
        if (below && visit_schemas(below.get(), child, visit))
            return true;
    }
    return false;
}

bool schema_dir_has_schemas(const std::string& schema_dir) {
    const DirectoryPtr directory =
        entries_of(UniqueFd(open(schema_dir.c_str(), kOpenDirectory | O_NOFOLLOW)));
    return directory &&
           visit_schemas(directory.get(), schema_dir, [](const std::string&, int) { return true; });
}

/** The text of an open schema; nothing when it cannot be read or is larger than any schema. */
static std::optional<std::string> read_schema(int fd) {
    std::string text;
    char block[16 << 10];
    for (;;) {
        const ssize_t got = read(fd, block, sizeof block);
        if (got == 0)
            return text;
        if ((got < 0 && errno != EINTR) || text.size() > kSchemaLimit)
            return std::nullopt;
        if (got > 0)
            text.append(block, static_cast<size_t>(got));
    }
}

static int search_schemas(const std::string& name, const std::string& text, const std::string& schema_dir,
                          int flags, std::string* message) {
    const DirectoryPtr directory = entries_of(UniqueFd(open(schema_dir.c_str(), kOpenDirectory | flags)));
    if (!directory) {
        *message = "Failed to read schema directory " + schema_dir + ": " + system_error_text();
        return JSON_DIRECTORY_UNUSABLE;
    }
    std::vector<std::string> failures;
    const auto accepts = [&text, &failures](const std::string& path, int fd) {
        const std::optional<std::string> schema = read_schema(fd);
        std::string reason = "Failed to read " + path;
        if (schema && validate_in_process(text, *schema, {}, &reason) == JSON_VALID)
            return true;
        failures.push_back(path + ": " + reason);
        return false;
    };
    if (visit_schemas(directory.get(), schema_dir, accepts))
        return JSON_VALID;
    for (const std::string& failure : failures)
        log_general_error("%sFailed to validate %s using schema file %s", LOG_PREAMBLE, name.c_str(),
                          failure.c_str());
    *message = name + ": No valid schemas found";
    return JSON_NOT_VALID;
}

int validate_text_against_schema_dir(const std::string& name, const char* text, const std::string& schema_dir,
                                     std::string* message) {
    if (!text) {
        *message = name + ": Input is NULL";
        return JSON_INPUT_UNUSABLE;
    }
    return search_schemas(name, text, schema_dir, O_NOFOLLOW, message);
}

int validate_file_against_schema_dir(const std::string& input_path, const std::string& schema_dir,
                                     std::string* message) {
    const std::optional<std::string> input = read_or_explain(input_path, "Failed to read input ", message);
    if (!input)
        return JSON_INPUT_UNUSABLE;
    return search_schemas(input_path, *input, schema_dir, 0, message);
}
