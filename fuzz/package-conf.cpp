#include "fuzz/targets.h"
#include "lifecycle/velkctl-package-conf.h"

void fuzz_package_conf(std::string_view input) {
    const std::string text(input);
    ErrorSlot error;
    const std::optional<std::string> value = velkctl_read_package_conf_value("APPNAME", text, error);
    must_hold(value.has_value() != error.is_set());
    must_hold(!value || value->find_first_of("$`&|;\n\r\t") == std::string::npos);
    ErrorSlot in_file;
    (void)find_package_conf_value(text, "APPNAME", in_file);
    ErrorSlot no_version;
    (void)package_conf_version(text, no_version);
}
