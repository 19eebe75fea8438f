#include "manifest/allowlist.h"

#include <sys/mman.h>
#include <unistd.h>

#include "base/handles.h"
#include "fuzz/targets.h"

static void check_names(const std::vector<std::string>& names) {
    for (const std::string& name : names)
        must_hold(!name.empty() && name.size() <= 32 && name.find_first_of(" #\n") == std::string::npos);
}

void fuzz_allowlist(std::string_view input) {
    const UniqueFd file(memfd_create("amend-list", MFD_CLOEXEC));
    must_hold(write(file.get(), input.data(), input.size()) == static_cast<ssize_t>(input.size()));
    ErrorSlot error;
    const std::optional<AmendList> amend =
        load_amend_list("/proc/self/fd/" + std::to_string(file.get()), error);
    must_hold(amend.has_value() != error.is_set());
    if (!amend)
        return;
    check_names(amend->deny_users);
    check_names(amend->deny_groups);
    for (const std::string& name : amend->deny_users)
        must_hold(name.find('\0') != std::string::npos || !validate_entry(false, *amend, name.c_str()));
}
