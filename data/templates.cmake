# Turns the files below data/templates/ into a source file; sets template_source to its path.
set(template_root ${CMAKE_CURRENT_LIST_DIR}/templates)
set(template_rows "")
foreach(language c shell)
    file(GLOB_RECURSE names CONFIGURE_DEPENDS RELATIVE ${template_root}/${language} ${template_root}/${language}/*)
    list(SORT names)
    foreach(name IN LISTS names)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${template_root}/${language}/${name})
        file(READ ${template_root}/${language}/${name} text)
        string(APPEND template_rows "    {\"${language}\", \"${name}\", R\"---(${text})---\"},\n")
    endforeach()
endforeach()

set(template_source ${CMAKE_BINARY_DIR}/generated/template-files.cpp)
file(CONFIGURE OUTPUT ${template_source} @ONLY CONTENT [[
// Made from data/templates/.
#include "pack/velk-pack-new.h"

static constexpr TemplateFile kFiles[] = {
@template_rows@};

std::span<const TemplateFile> template_files() { return kFiles; }
]])
