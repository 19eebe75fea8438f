# Turns the two lists of names into a source file; sets allowlist_source to its path.
foreach(kind users groups)
    set(list_file ${CMAKE_CURRENT_LIST_DIR}/allowed-${kind})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list_file})
    file(STRINGS ${list_file} names)
    list(TRANSFORM names PREPEND "    \"")
    list(TRANSFORM names APPEND "\",\n")
    list(JOIN names "" allowed_${kind})
endforeach()

set(allowlist_source ${CMAKE_BINARY_DIR}/generated/builtin-allowlists.cpp)
file(CONFIGURE OUTPUT ${allowlist_source} @ONLY CONTENT [[
// Made from data/allowed-users and data/allowed-groups.
#include "manifest/allowlist.h"

static constexpr std::string_view kUsers[] = {
@allowed_users@};

static constexpr std::string_view kGroups[] = {
@allowed_groups@};

std::span<const std::string_view> builtin_users() { return kUsers; }

std::span<const std::string_view> builtin_groups() { return kGroups; }
]])
