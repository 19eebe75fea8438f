#include "integration/cfgtree.h"

#include <sys/mman.h>

#include <cerrno>

#include "base/descriptors.h"
#include "base/paths.h"
#include "integration/dbus-policy.h"
#include "integration/own-files.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "platform/libcfgtree.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/dbus-call.h"
#include "system/file.h"
#include "system/regex.h"
#include "system/user-database.h"

namespace {

constexpr size_t LONGEST_DEFINITION = 1 << 20;

const json_t* parameter_list(const json_t* manifest) {
    return manifest_object(manifest, nullptr, {"velkPackageConf", "configuration", "paramConfig"});
}

std::string values_name(const std::string& app) { return app + ".conf"; }
std::string group_name(const std::string& app) { return "param_" + app + ".conf"; }

bool check_parameter_name(const std::string& name, VelkctlError** error) {
    if (name.empty() || name.size() > LONGEST_PARAMETER_NAME) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Parameter name must contain between 1 and 32 characters.");
        return false;
    }
    ErrorSlot mismatch;
    if (check_regex(PARAMETER_NAME_PATTERN, name, mismatch))
        return true;
    if (mismatch.is_set())
        mismatch.move_to(error);
    else
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Parameter name must only contain alphanumeric characters or '_'.");
    return false;
}

std::optional<Parameter> read_parameter(const json_t* element, VelkctlError** error) {
    if (!json_is_object(element)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "paramConfig in manifest does not contain objects");
        return std::nullopt;
    }
    const std::optional<std::string> name = manifest_string(element, error, {"name"});
    const std::optional<std::string> value =
        name ? manifest_string(element, error, {"default"}) : std::nullopt;
    const std::optional<std::string> type = value ? manifest_string(element, error, {"type"}) : std::nullopt;
    if (!type || !check_parameter_name(*name, error) || !check_no_newline(value, "default", error) ||
        !check_no_newline(type, "type", error))
        return std::nullopt;
    return Parameter{*name, *value, *type};
}

/** What the steps of the set-up share. */
struct ParameterJob {
    std::string app;
    std::string user;
    std::string group;
    std::vector<Parameter> parameters;
    AreaDirectory conf;
};

bool write_parameter_files(const ParameterJob& job, VelkctlError** error) {
    const std::string values = parameter_values_text(job.app, job.parameters);
    const std::string definition = parameter_group_text(job.app, job.group, job.parameters);
    return write_area_file(job.conf, values_name(job.app), values, error) &&
           write_area_file(job.conf, group_name(job.app), definition, error);
}

/** Let only the application read and change its own parameter files. */
bool give_parameter_files(const ParameterJob& job, VelkctlError** error) {
    const uid_t uid = find_user_id(job.user, error);
    const gid_t gid =
        uid == static_cast<uid_t>(-1) ? static_cast<gid_t>(-1) : find_group_id(job.group, error);
    if (gid == static_cast<gid_t>(-1))
        return false;
    for (const std::string& name : {values_name(job.app), group_name(job.app)}) {
        const std::optional<AreaFile> file =
            open_area_file(job.conf, name, "Failed setting ownership of", error);
        if (!file || !file->set_owner(uid, gid, error) || !file->set_mode(0600, error))
            return false;
    }
    return true;
}

/**
 * Load the group that the text defines. The library reads by path, and the file at the link is the
 * application's, which may exchange it at any moment: what was checked is handed over as a file that nobody
 * else has.
 */
bool load_group(const std::string& app, const std::string& text, VelkctlError** error) {
    const std::string link = paths::parameter_group_link(app);
    const AreaFile copy(UniqueFd(memfd_create("parameters", MFD_CLOEXEC)), link);
    bool failed = !defines_own_group(app, text) || !write_all(copy.fd(), text);
    if (!failed) {
        legacy_cli_resetOptions();
        cli_readGroupFile(copy.access_path().c_str(), &failed);
    }
    return !failed || FAIL_GENERAL(error, "Failed loading parameter configuration file: %s", link.c_str());
}

bool publish_parameters(const ParameterJob& job, VelkctlError** error) {
    return write_parameter_files(job, error) && write_bus_policy(job.app, job.user, error) &&
           give_parameter_files(job, error) &&
           make_symlink(job.conf.path_of(values_name(job.app)), paths::parameter_values_link(job.app),
                        error) &&
           make_symlink(job.conf.path_of(group_name(job.app)), paths::parameter_group_link(job.app), error) &&
           dbus_reload_config(error) &&
           load_group(job.app, parameter_group_text(job.app, job.group, job.parameters), error);
}

/** Where the definition of the application's group lies. */
std::string definition_path(const std::string& directory, const std::string& app) {
    return directory + "/conf/" + group_name(app);
}

bool is_own_definition(const std::string& directory, const std::string& app) {
    return is_symlink_target_equal_to(paths::parameter_group_link(app), definition_path(directory, app));
}

/**
 * Where a definition of the application's group is linked that is not the application's, if there is one: the
 * group is then the image's. The name of a group has a capital, that of its file may begin either way.
 */
std::optional<std::string> find_foreign_definition(const std::string& directory, const std::string& app) {
    std::string other = app;
    other[0] = g_ascii_isupper(app[0]) ? g_ascii_tolower(app[0]) : g_ascii_toupper(app[0]);
    for (const std::string& name : {app, other}) {
        const std::string link = paths::parameter_group_link(name);
        if ((is_symlink(link) || is_regular_file_no_follow(link)) &&
            !is_symlink_target_equal_to(link, definition_path(directory, app)))
            return link;
    }
    return std::nullopt;
}

bool check_group_is_own(const std::string& directory, const std::string& app, VelkctlError** error) {
    const std::optional<std::string> foreign = find_foreign_definition(directory, app);
    return !foreign ||
           FAIL_GENERAL(error, "Failed creating symbolic link from %s to %s: error %s", foreign->c_str(),
                        definition_path(directory, app).c_str(), system_error_text(EEXIST).c_str());
}

bool delete_group(const std::string& app, VelkctlError** error) {
    bool failed = false;
    legacy_cli_resetOptions();
    cli_deleteGroup(app.c_str(), &failed);
    if (failed)
        SET_GENERAL_ERROR(error, "Failed deleting the param group: %s", app.c_str());
    return !failed;
}

}  // namespace

std::optional<std::vector<Parameter>> read_parameters(const json_t* manifest, VelkctlError** error) {
    const json_t* list = parameter_list(manifest);
    if (list && !json_is_array(list)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s in manifest is not an array",
                          "paramConfig");
        return std::nullopt;
    }
    std::vector<Parameter> parameters;
    for (size_t i = 0; i < json_array_size(list); i++) {
        std::optional<Parameter> parameter = read_parameter(json_array_get(list, i), error);
        if (!parameter)
            return std::nullopt;
        parameters.push_back(std::move(*parameter));
    }
    return parameters;
}

bool setup_parameters(const json_t* manifest, const std::string& directory, const std::string& app,
                      const std::string& user, const std::string& group, uint32_t location_kind,
                      VelkctlError** error) {
    if (location_kind == STORE_SD_CARD1) {
        if (!parameter_list(manifest))
            return true;
        velkctl_error_set(error, VELKCTL_ERROR_DEFAULT_LOCATION_ONLY,
                          "Manifest includes parameter configuration which means the application can only be "
                          "installed to the default location");
        return false;
    }
    if (!make_dirs(dir_name(paths::parameter_group_link(app)).value_or(""), error))
        return false;
    std::optional<std::vector<Parameter>> parameters = read_parameters(manifest, error);
    const std::optional<AreaDirectory> application =
        parameters && check_group_is_own(directory, app, error) ? open_area(directory, error) : std::nullopt;
    std::optional<AreaDirectory> conf =
        application ? open_area_directory(*application, "conf", error) : std::nullopt;
    return conf && publish_parameters({app, user, group, std::move(*parameters), std::move(*conf)}, error);
}

bool teardown_parameters(const std::string& directory, const std::string& app, VelkctlError** error) {
    const bool is_loaded = is_own_bus_policy(app) || is_own_definition(directory, app);
    if (is_loaded && !find_foreign_definition(directory, app) && !delete_group(app, error))
        return false;
    return try_each({
                        [&](VelkctlError** failure) {
                            return remove_own_link(paths::parameter_values_link(app),
                                                   directory + "/conf/" + values_name(app), failure);
                        },
                        [&](VelkctlError** failure) {
                            return remove_own_link(paths::parameter_group_link(app),
                                                   definition_path(directory, app), failure);
                        },
                        [&](VelkctlError** failure) {
                            return remove_file_in_application(directory, "conf", values_name(app), failure);
                        },
                        [&](VelkctlError** failure) {
                            return remove_file_in_application(directory, "conf", group_name(app), failure);
                        },
                        [&](VelkctlError** failure) { return remove_bus_policy(app, failure); },
                    },
                    error);
}

bool reload_parameters(const std::string& app, VelkctlError** error) {
    const std::string directory = paths::store_root_path(app);
    const std::string name = group_name(app);
    if (!is_own_definition(directory, app))
        return true;
    ErrorSlot not_there;
    const std::optional<AreaDirectory> application = open_area(directory, not_there);
    const std::optional<AreaDirectory> conf =
        application ? open_area_directory(*application, "conf", not_there) : std::nullopt;
    if (!conf || area_entry_kind(*conf, name) == 0)
        return true;
    return load_group(app, read_area_file(*conf, name, LONGEST_DEFINITION).value_or(""), error);
}
