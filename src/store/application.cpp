#include "store/application.h"

#include "system/file.h"

bool Application::is_reachable() const { return location && is_directory_no_follow(home()); }

std::string Application::packed_files() const {
    if (!is_reachable())
        return {};
    // The second card's applications are linked by a name that nobody makes there.
    const std::string linked = location->subdir ? location_link_target(name, location) : home();
    return is_directory_no_follow(linked) ? linked : home();
}

Application find_application(const std::string& name) {
    const StoreLocation* recorded = recorded_location(name);
    ErrorSlot nowhere;
    return {name, recorded ? recorded : find_app_location(name, nowhere)};
}
