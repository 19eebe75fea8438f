#include "integration/parameter-text.h"

#include <glib.h>

#include <optional>
#include <string_view>

#include "base/paths.h"
#include "base/velkctl-error.h"
#include "system/regex.h"

namespace {

constexpr const char* PARSER_LINE = "parser = Standard2parser";

std::string file_line(const std::string& app) {
    return "file = \"" + paths::parameter_values_link(app) + "\"";
}

std::string dbus_line(const std::string& app) {
    return "dbus = \"--system --dest=com.orvo.Param." + app + " /com/orvo/Param/" + app +
           " com.orvo.Param.ChangeNotification string:'$NAME' string:'$VALUE'\"";
}

std::string mount_line(const std::string& app, const std::string& parameter) {
    return "mount = \"Standard2{" + parameter_group_name(app) + "}{" + parameter + "}\"";
}

/** What stands between the two ends of the line, if it has both. */
std::optional<std::string_view> between(std::string_view line, std::string_view begin, std::string_view end) {
    if (line.size() < begin.size() + end.size() || !line.starts_with(begin) || !line.ends_with(end))
        return std::nullopt;
    return line.substr(begin.size(), line.size() - begin.size() - end.size());
}

/** The name in a line that opens a parameter, or nothing. */
std::string opened_parameter(std::string_view line) {
    const std::string name(between(line, "param ", " {").value_or(""));
    ErrorSlot unusable;
    return name.size() <= LONGEST_PARAMETER_NAME && check_regex(PARAMETER_NAME_PATTERN, name, unusable) ? name
                                                                                                        : "";
}

/** Whether the line gives the key a string, in which nothing ends the string or the line early. */
bool gives_string(std::string_view line, const std::string& key) {
    const std::optional<std::string_view> text = between(line, key + " = \"", "\"");
    return text && text->find_first_of(std::string_view("\"\r\0", 3)) == std::string_view::npos;
}

/** Reads a definition line by line, as long as it says nothing of another group. */
class OwnGroup {
  public:
    explicit OwnGroup(const std::string& app) : app_(app) {}

    /** Take the next line, which comes without its indentation; false when it may not stand there. */
    bool take(std::string_view line) {
        if (state_ == State::Before)
            return go_on(line == "group " + parameter_group_name(app_) + " {", State::Group);
        if (state_ == State::Parameter)
            return line == "}" ? go_on(true, State::Group)
                               : line == mount_line(app_, parameter_) || gives_string(line, "type");
        if (state_ == State::After)
            return false;
        if (line == "}")
            return go_on(true, State::After);
        parameter_ = opened_parameter(line);
        if (!parameter_.empty())
            return go_on(true, State::Parameter);
        return line == PARSER_LINE || line == file_line(app_) || line == dbus_line(app_) ||
               gives_string(line, "accessControl");
    }

    [[nodiscard]] bool is_whole() const { return state_ == State::After; }

  private:
    enum class State { Before, Group, Parameter, After };

    bool go_on(bool may, State next) {
        state_ = next;
        return may;
    }

    const std::string& app_;
    State state_ = State::Before;
    std::string parameter_;  ///< the one that is open
};

}  // namespace

std::string parameter_group_name(const std::string& app) {
    std::string group = app;
    if (!group.empty())
        group[0] = g_ascii_toupper(group[0]);
    return group;
}

std::string parameter_values_text(const std::string& app, const std::vector<Parameter>& parameters) {
    std::string text = "[" + parameter_group_name(app) + "]\n";
    for (const Parameter& parameter : parameters)
        text += parameter.name + "=\"" + parameter.default_value + "\"\n";
    return text;
}

std::string parameter_group_text(const std::string& app, const std::string& group,
                                 const std::vector<Parameter>& parameters) {
    std::string text = "group " + parameter_group_name(app) + " {\n";
    text += std::string(PARSER_LINE) + "\n" + file_line(app) + "\n" + dbus_line(app) + "\n";
    text += "accessControl = \"admin:3;" + group + ":3;operator:1;viewer:0\"\n";
    for (const Parameter& parameter : parameters)
        text += "param " + parameter.name + " {\n  " + mount_line(app, parameter.name) + "\n  type = \"" +
                parameter.type + "\"\n}\n";
    return text + "}\n";
}

bool defines_own_group(const std::string& app, const std::string& text) {
    OwnGroup group(app);
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        if (end == std::string_view::npos)  // the last line has an end too
            return false;
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 1);
        const size_t indent = line.find_first_not_of(' ');
        if (!group.take(indent == std::string_view::npos ? std::string_view() : line.substr(indent)))
            return false;
    }
    return group.is_whole();
}
