#include "platform/libcfgtree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "base/handles.h"
#include "base/paths.h"
#include "platform/libfilesync.h"

namespace {

constexpr off_t LARGEST_FILE = 1 << 20;

bool is_word(std::string_view text) {
    for (const char character : text)
        if (!std::isalnum(static_cast<unsigned char>(character)) && character != '_' && character != '-')
            return false;
    return !text.empty();
}

/** A bare word, or a string in double quotes that holds none itself. */
bool is_value(std::string_view text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"')
        return is_word(text);
    return text.substr(1, text.size() - 2).find('"') == std::string_view::npos;
}

/** The name in a line "KIND NAME {", if it is one. */
std::optional<std::string> block_name(std::string_view line, std::string_view kind) {
    if (!line.starts_with(kind) || !line.ends_with(" {") || line.size() < kind.size() + 2)
        return std::nullopt;
    const std::string_view name = line.substr(kind.size(), line.size() - kind.size() - 2);
    return is_word(name) ? std::optional<std::string>(name) : std::nullopt;
}

bool is_attribute(std::string_view line) {
    const size_t indent = line.find_first_not_of(' ');
    const size_t sign = line.find(" = ");
    return indent != std::string_view::npos && sign != std::string_view::npos && sign > indent &&
           is_word(line.substr(indent, sign - indent)) && is_value(line.substr(sign + 3));
}

/** The name of the group that the text defines, or nothing when the text is malformed anywhere. */
std::optional<std::string> parse_group(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    const std::optional<std::string> group = block_name(line, "group ");
    int depth = group ? 1 : 0;
    while (depth > 0 && std::getline(lines, line)) {
        if (line == "}")
            depth--;
        else if (depth == 1 && block_name(line, "param "))
            depth++;
        else if (!is_attribute(line))
            return std::nullopt;
    }
    const bool nothing_follows = lines.peek() == std::istringstream::traits_type::eof();
    return group && depth == 0 && nothing_follows ? group : std::nullopt;
}

/** The text of a group file: of a regular file of sensible size, and nothing else is waited for. */
std::optional<std::string> read_group_file(const char* path) {
    const UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > LARGEST_FILE)
        return std::nullopt;
    std::string text(static_cast<size_t>(status.st_size), '\0');
    size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = read(fd.get(), text.data() + length, text.size() - length);
        if (got <= 0)
            return std::nullopt;
        length += static_cast<size_t>(got);
    }
    return text;
}

/** Where a loaded group is kept. Group names begin with a capital, however the caller writes them. */
std::string group_path(std::string name) {
    name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
    return std::string(paths::kLoadedParameterGroups) + "/" + name;
}

bool keep_group(const std::string& name, const std::string& text) {
    return g_mkdir_with_parents(paths::kLoadedParameterGroups, 0755) == 0 &&
           filesync_set_file_contents_with_sync_mode(group_path(name).c_str(), text.data(), text.size(),
                                                     FILESYNC_NONE, 0644, nullptr);
}

}  // namespace

// The stand-in keeps no options between its calls.
void legacy_cli_resetOptions() {}

void cli_readGroupFile(const char* path, bool* failed) {
    const std::optional<std::string> text = read_group_file(path);
    const std::optional<std::string> name = text ? parse_group(*text) : std::nullopt;
    if (!name || !keep_group(*name, *text))
        *failed = true;
}

void cli_deleteGroup(const char* name, bool* failed) {
    if (!is_word(name) || (unlink(group_path(name).c_str()) != 0 && errno != ENOENT))
        *failed = true;
    rmdir(paths::kLoadedParameterGroups);  // goes with the last group, and stays with any other
}
