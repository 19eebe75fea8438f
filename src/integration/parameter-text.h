#pragma once

#include <string>
#include <vector>

/*
 * The files of an application's parameters, as pure functions.
 */

/** One parameter that an application declares. */
struct Parameter {
    std::string name;
    std::string default_value;
    std::string type;
};

/** What a parameter may be called: 1 to this many letters, digits and underscores, a letter first. */
inline constexpr size_t LONGEST_PARAMETER_NAME = 32;
inline constexpr const char* PARAMETER_NAME_PATTERN = "^[A-Za-z][A-Za-z0-9_]*$";

/** The parameter group of an application: its name with the first letter in upper case. */
[[nodiscard]] std::string parameter_group_name(const std::string& app);

/** The file of current values. */
[[nodiscard]] std::string parameter_values_text(const std::string& app,
                                                const std::vector<Parameter>& parameters);
/** The file that defines the group; `group` is the application's Linux group. */
[[nodiscard]] std::string parameter_group_text(const std::string& app, const std::string& group,
                                               const std::vector<Parameter>& parameters);

/**
 * Whether the text defines the application's own group, and nothing else: its parameters, whatever their
 * types, lie in its own values, its changes are announced in its own name, and it says who has access to it.
 * That is all that parameter_group_text ever says; anything else could be about another group.
 */
[[nodiscard]] bool defines_own_group(const std::string& app, const std::string& text);
