#include "lifecycle/velkctl-json-validate.h"

#include <dirent.h>

#include <functional>
#include <optional>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "lifecycle/schema-process.h"
#include "system/file.h"

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

/**
 * Visit the schemas of a directory and of those below it, until `visit` returns true; whether it did. A
 * directory below that cannot be opened is passed over.
 */
static bool visit_schemas(DIR* directory, const std::string& path,
                          const std::function<bool(const std::string& schema)>& visit) {
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        const std::string child = path + "/" + name;
        if (name == "." || name == "..")
            continue;
        if (is_directory_no_follow(child)) {
            const DirectoryPtr below(opendir(child.c_str()));
            if (below && visit_schemas(below.get(), child, visit))
                return true;
        } else if (is_regular_file_no_follow(child) && visit(child)) {
            return true;
        }
    }
    return false;
}

bool schema_dir_has_schemas(const std::string& schema_dir) {
    const DirectoryPtr directory(opendir(schema_dir.c_str()));
    return directory && visit_schemas(directory.get(), schema_dir, [](const std::string&) { return true; });
}

int validate_text_against_schema_dir(const std::string& name, const char* text, const std::string& schema_dir,
                                     std::string* message) {
    if (!text) {
        *message = name + ": Input is NULL";
        return JSON_INPUT_UNUSABLE;
    }
    const DirectoryPtr directory(opendir(schema_dir.c_str()));
    if (!directory) {
        *message = "Failed to read schema directory " + schema_dir + ": " + system_error_text();
        return JSON_DIRECTORY_UNUSABLE;
    }
    std::vector<std::string> failures;
    const auto accepts = [text, &failures](const std::string& schema) {
        std::string reason;
        if (validate_against_schema_file(text, schema, &reason) == JSON_VALID)
            return true;
        failures.push_back(schema + ": " + reason);
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

int validate_file_against_schema_dir(const std::string& input_path, const std::string& schema_dir,
                                     std::string* message) {
    const std::optional<std::string> input = read_or_explain(input_path, "Failed to read input ", message);
    if (!input)
        return JSON_INPUT_UNUSABLE;
    return validate_text_against_schema_dir(input_path, input->c_str(), schema_dir, message);
}
