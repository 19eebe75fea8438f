#pragma once

#include <span>
#include <string>
#include <string_view>

#include "base/velkctl-error.h"

/** One file of a template; `@NAME@` in its name and its text stands for the application's name,
 * `@ARCHITECTURE@` for the machine's. */
struct TemplateFile {
    std::string_view language;
    std::string_view name;
    std::string_view text;
};

/** The files of all templates, compiled in from data/templates/LANGUAGE/. */
[[nodiscard]] std::span<const TemplateFile> template_files();

/**
 * Start a new application from a template.
 *
 * @param name      of the application
 * @param language  "c" or "shell"
 * @param folder    where it is to be; must not exist yet, and after a failure it does not
 * @param error     code 10 for a name that no application can have or an unknown language; code 14 when the
 * folder exists
 */
[[nodiscard]] bool velk_pack_new(const std::string& name, const std::string& language,
                                 const std::string& folder, VelkctlError** error);
