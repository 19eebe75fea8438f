#include "pack/velk-pack-new.h"

#include <algorithm>

#include "manifest/names.h"
#include "manifest/version.h"
#include "pack/new-folder.h"
#include "pack/pack-error.h"

/** What stands in the templates for the application's name and for the machine's architecture. */
static std::string filled_in(std::string_view text, const std::string& name) {
    const std::pair<std::string_view, std::string> places[] = {{"@NAME@", name},
                                                               {"@ARCHITECTURE@", system_architecture()}};
    std::string result(text);
    for (const auto& [place, value] : places)
        for (size_t at = 0; (at = result.find(place, at)) != std::string::npos; at += value.size())
            result.replace(at, place.size(), value);
    return result;
}

bool velk_pack_new(const std::string& name, const std::string& language, const std::string& folder,
                   VelkctlError** error) {
    ErrorSlot broken_rule;
    if (!is_valid_app_name(name, broken_rule))
        return fail_with(error, VELKCTL_ERROR_GENERAL, name, broken_rule.message());
    const auto files = template_files();
    if (std::none_of(files.begin(), files.end(),
                     [&](const TemplateFile& file) { return file.language == language; }))
        return fail_with(error, VELKCTL_ERROR_GENERAL, language, "there is no template in this language");
    NewFolder made;
    if (!made.create(folder, error))
        return false;
    for (const TemplateFile& file : files)
        if (file.language == language &&
            !made.add_file(filled_in(file.name, name), filled_in(file.text, name),
                           file.text.starts_with("#!"), error))
            return false;
    return made.keep(error);
}
