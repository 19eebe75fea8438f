#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/handles.h"
#include "base/paths.h"
#include "platform/libfilesync.h"
#include "platform/libvelkctl.h"

// What a plug-in exports under the name "velkctl_plugin". It returns 0, or an error code with a text of its
// own.
using PluginFunction = int (*)(const char* function, const json_t* manifest, const char* user, char* message,
                               size_t message_size);

__attribute__((format(printf, 3, 4))) static bool fail(VelkctlError** error, int32_t code, const char* format,
                                                       ...) {
    if (!error)
        return false;
    auto* record = static_cast<VelkctlError*>(std::calloc(1, sizeof(VelkctlError)));
    if (!record)
        std::abort();
    record->code = code;
    record->foreign = true;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(record->message, sizeof record->message, format, arguments);
    va_end(arguments);
    *error = record;
    return false;
}

void velkctl_error_free(VelkctlError* error) { std::free(error); }

static std::vector<std::string> plugin_names() {
    std::vector<std::string> names;
    const DirectoryPtr directory(opendir(paths::kPlugins));
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name.ends_with(".so"))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

static bool call_plugin(const std::string& name, const char* function, const json_t* manifest,
                        const char* user, VelkctlError** error) {
    const std::string path = std::string(paths::kPlugins) + "/" + name;
    // Never closed again: a plug-in may have registered what must outlive the call, and the process is
    // short-lived.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return fail(error, 10, "%s", dlerror());
    const auto call = reinterpret_cast<PluginFunction>(dlsym(library, "velkctl_plugin"));
    if (!call)
        return fail(error, 10, "%s: velkctl_plugin is missing", name.c_str());
    char message[256] = "";
    const int code = call(function, manifest, user, message, sizeof message);
    message[sizeof message - 1] = '\0';
    return code == 0 || fail(error, code, "%s: %s", name.c_str(), message);
}

bool velkctl_plugin_call(const char* function, const json_t* manifest, const char* user,
                         VelkctlError** error) {
    for (const std::string& name : plugin_names())
        if (!call_plugin(name, function, manifest, user, error))
            return false;
    return true;
}

/** A group file in lines: everything up to its closing brace, with each `param` block also known by its name.
 */
struct GroupText {
    std::string body;
    std::vector<std::pair<std::string, std::string>> params;
};

static bool read_group(const char* path, GroupText* group) {
    std::ifstream file(path);
    std::string line;
    std::string param;
    bool closed = false;
    while (std::getline(file, line)) {
        if (line == "}" && param.empty()) {
            closed = true;
            break;
        }
        group->body += line + "\n";
        char name[64];
        const bool opens = param.empty() && std::sscanf(line.c_str(), "param %63s {", name) == 1;
        if (opens)
            param = name;
        if (!param.empty()) {
            if (opens)
                group->params.emplace_back(param, "");
            group->params.back().second += line + "\n";
        }
        if (line == "}")
            param.clear();
    }
    return closed;
}

static bool defines(const GroupText& group, const std::string& name) {
    return std::any_of(group.params.begin(), group.params.end(),
                       [&name](const auto& param) { return param.first == name; });
}

bool velkctl_parconf_merge_files(const char* current, const char* saved, const char* merged,
                                 VelkctlError** error) {
    GroupText current_group;
    GroupText saved_group;
    if (!read_group(current, &current_group))
        return fail(error, 10, "%s is not a parameter group file", current);
    if (!read_group(saved, &saved_group))
        return fail(error, 10, "%s is not a parameter group file", saved);
    std::string text = current_group.body;
    for (const auto& [name, block] : saved_group.params)
        if (!defines(current_group, name))
            text += block;
    text += "}\n";
    GErrorSlot reason;
    if (!filesync_set_file_contents_with_sync_mode(merged, text.data(), text.size(), FILESYNC_FULL, 0644,
                                                   reason.out()))
        return fail(error, 10, "%s", reason.message());
    return true;
}
