#include "lifecycle/velkctl-restore.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cstdio>

#include "base/log.h"
#include "base/paths.h"
#include "integration/cfgtree.h"
#include "integration/users.h"
#include "lifecycle/velkctl-backup.h"
#include "manifest/app-user.h"
#include "platform/libvelkctl.h"
#include "store/application.h"
#include "store/lock.h"
#include "system/area.h"
#include "system/copy-tree.h"
#include "system/file.h"
#include "system/key-file.h"
#include "system/tree.h"
#include "system/user-database.h"

namespace {

/** What is restored, for whom. The saved files are found in the working directory, by their names. */
struct Restoration {
    std::string app;
    uid_t uid;
    gid_t gid;
    AreaDirectory application;  ///< the application directory
    AreaDirectory backups;      ///< where backups are, and nobody else can work
};

/** One of the two configuration files, with the directory it is to come back to. */
struct ConfigurationFile {
    const std::string& app;
    const AreaDirectory& conf;
    const AreaDirectory& workshop;  ///< where it is put together
    std::string name;

    [[nodiscard]] std::string temporary() const { return name + ".tmp"; }
    [[nodiscard]] bool is_saved() const { return is_regular_file_no_follow(name); }
    [[nodiscard]] bool is_current() const { return area_entry_kind(conf, name) == S_IFREG; }
    /** The copy of the current one. */
    [[nodiscard]] std::string current() const { return "current-" + name; }
};

/** Give a failure up with the paths that people know in the place of those in the workshop. */
bool fail_as_known(const ConfigurationFile& file, ErrorSlot& failure, VelkctlError** error) {
    const AreaDirectory& workshop = file.workshop;
    move_with_known_paths(failure,
                          {{workshop.access_path(file.current()), file.conf.path_of(file.name)},
                           {workshop.access_path(file.name), file.conf.path_of(file.temporary())},
                           {workshop.access_path(""), file.conf.path_of("")}},
                          error);
    return false;
}

/** Merge the saved settings file with the copy of the current one. */
bool merge_key_file(const ConfigurationFile& file, VelkctlError** error) {
    ErrorSlot failure;
    const std::string text = merge_key_files(parameter_group_name(file.app),
                                             file.workshop.access_path(file.current()), file.name, failure);
    return (!text.empty() && write_area_file(file.workshop, file.name, text, failure)) ||
           fail_as_known(file, failure, error);
}

/** Merge the saved parameter file with the copy of the current one. */
bool merge_parameter_file(const ConfigurationFile& file, VelkctlError** error) {
    ErrorSlot failure;
    if (velkctl_parconf_merge_files(file.workshop.access_path(file.current()).c_str(), file.name.c_str(),
                                    file.workshop.access_path(file.name).c_str(), failure))
        return true;
    if (!failure.is_set())
        SET_GENERAL_ERROR(failure, "Failed merging %s and %s", file.conf.path_of(file.name).c_str(),
                          file.name.c_str());
    return fail_as_known(file, failure, error);
}

/** Make a temporary file of what `source` holds, and give that very file to the user. */
bool bring_in(const ConfigurationFile& file, const AreaDirectory& source, const Restoration& restoration,
              VelkctlError** error) {
    std::optional<AreaFile> made;
    return copy_area_file(source, file.name, file.conf, file.temporary(), LARGEST_CONFIGURATION_FILE, &made,
                          error) &&
           made->set_owner(restoration.uid, restoration.gid, error) && made->set_mode(0600, error);
}

using Merge = bool (*)(const ConfigurationFile& file, VelkctlError** error);

/** Put together what is saved and what is current, of which there is at least one. */
bool put_together(const ConfigurationFile& file, Merge merge, const Restoration& restoration,
                  VelkctlError** error) {
    if (!file.is_saved())
        return bring_in(file, file.conf, restoration, error);
    if (!file.is_current()) {
        const std::optional<AreaDirectory> saved = open_area(backup_path(file.app), error);
        return saved && bring_in(file, *saved, restoration, error);
    }
    // The merging goes by paths, so it works on what nobody else can exchange.
    return copy_area_file(file.conf, file.name, file.workshop, file.current(), LARGEST_CONFIGURATION_FILE,
                          nullptr, error) &&
           merge(file, error) && bring_in(file, file.workshop, restoration, error);
}

bool merge_settings(const ConfigurationFile& file, const Restoration& restoration, VelkctlError** error) {
    return !file.is_saved() || put_together(file, merge_key_file, restoration, error);
}

bool merge_parameters(const ConfigurationFile& file, const Restoration& restoration, VelkctlError** error) {
    return (!file.is_saved() && !file.is_current()) ||
           put_together(file, merge_parameter_file, restoration, error);
}

bool put_in_place(const ConfigurationFile& file, VelkctlError** error) {
    return flush_and_rename_area_file(file.conf, file.temporary(), file.name, error);
}

/** A directory for the time of its scope, which only root can enter. */
class Workshop {
  public:
    Workshop(const AreaDirectory& parent, std::string name) : parent_(parent), name_(std::move(name)) {}
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;
    ~Workshop() {
        ErrorSlot cleanup;
        if (!clear_area_entry(parent_, name_, cleanup))
            warn_and_clear_error(cleanup, nullptr);
    }

    [[nodiscard]] bool make(VelkctlError** error) {
        directory_ = clear_area_entry(parent_, name_, error) ? make_private_directory(parent_, name_, error)
                                                             : std::nullopt;
        return directory_.has_value();
    }
    [[nodiscard]] const AreaDirectory& directory() const { return *directory_; }

  private:
    const AreaDirectory& parent_;
    std::string name_;
    std::optional<AreaDirectory> directory_;
};

bool restore_into(const Restoration& restoration, const AreaDirectory& conf, VelkctlError** error) {
    Workshop workshop(restoration.backups, restoration.app + ".merge");
    if (!workshop.make(error))
        return false;
    const ConfigurationFile settings{restoration.app, conf, workshop.directory(), restoration.app + ".conf"};
    const ConfigurationFile parameters{restoration.app, conf, workshop.directory(),
                                       "param_" + restoration.app + ".conf"};
    // Whatever an earlier restore or the application left there would otherwise be put in place below.
    const bool restored = clear_area_entry(conf, settings.temporary(), error) &&
                          clear_area_entry(conf, parameters.temporary(), error) &&
                          merge_settings(settings, restoration, error) &&
                          merge_parameters(parameters, restoration, error) && put_in_place(settings, error) &&
                          put_in_place(parameters, error) && flush_area_directory(conf, error);
    if (restored)
        return true;
    ErrorSlot cleanup;
    for (const ConfigurationFile* file : {&settings, &parameters}) {
        (void)clear_area_entry(conf, file->temporary(), cleanup);
        cleanup.clear();
    }
    return false;
}

bool restore_configuration(const Restoration& restoration, VelkctlError** error) {
    const bool is_saved = is_regular_file_no_follow(restoration.app + ".conf") ||
                          is_regular_file_no_follow("param_" + restoration.app + ".conf");
    if (!is_saved && area_entry_kind(restoration.application, "conf") != S_IFDIR)
        return true;
    const std::optional<AreaDirectory> conf = open_area_directory(restoration.application, "conf", error);
    return conf && restore_into(restoration, *conf, error);
}

/** Put the copy in the place of the data that is there, which goes. */
bool replace_data(const AreaDirectory& application, const AreaDirectory& staging, VelkctlError** error) {
    const std::string data = "localdata";
    const mode_t kind = area_entry_kind(application, data);
    if (kind == S_IFLNK && !remove_area_file(application, data, error))
        return false;
    sync();
    // What changes places with the copy goes with the staging directory.
    if (kind == S_IFDIR &&
        renameat2(staging.fd(), data.c_str(), application.fd(), data.c_str(), RENAME_EXCHANGE) == 0)
        return true;
    if (kind == S_IFDIR && !clear_area_entry(application, data, error))
        return false;
    if (renameat(staging.fd(), data.c_str(), application.fd(), data.c_str()) == 0)
        return true;
    return FAIL_GENERAL(error, "Failed renaming %s to %s: %s", staging.path().c_str(),
                        application.path_of(data).c_str(), system_error_text().c_str());
}

bool restore_data(const Restoration& restoration, VelkctlError** error) {
    if (!is_directory_no_follow("localdata"))
        return true;
    const AreaDirectory& application = restoration.application;
    const std::optional<AreaDirectory> backup = open_area(backup_path(restoration.app), error);
    const std::optional<AreaDirectory> saved =
        backup ? open_area_directory(*backup, "localdata", error) : std::nullopt;
    const std::string staging_name = "localdata.tmp";
    if (!saved || !clear_area_entry(application, staging_name, error))
        return false;
    const std::optional<AreaDirectory> staging = make_private_directory(application, staging_name, error);
    if (!staging)
        return false;
    const bool is_replaced = copy_tree(*saved, *staging, "localdata", restoration.uid, error) &&
                             replace_data(application, *staging, error);
    if (is_replaced)
        return clear_area_entry(application, staging_name, error) && flush_area_directory(application, error);
    ErrorSlot cleanup;
    (void)clear_area_entry(application, staging_name, cleanup);
    return false;
}

bool require_restorable(const std::string& app, VelkctlError** error) {
    if (!backup_exists(app)) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "No backup was found for: %s", app.c_str());
        return false;
    }
    if (is_set_up(app))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Applicaiton %s is not set up. Please run setup before running 'velkctl restore'.",
                      app.c_str());
    return false;
}

/** The settings as setup will write them, for the two files in turn. Nothing for what it does not write. */
using Expected = std::array<std::optional<std::string>, 2>;

std::optional<Expected> expect_configuration(const std::string& app, const json_t* manifest,
                                             const StoreLocation& location, VelkctlError** error) {
    if (location.kind == STORE_SD_CARD1)
        return Expected{};
    const std::optional<std::vector<Parameter>> parameters = read_parameters(manifest, error);
    if (!parameters)
        return std::nullopt;
    return Expected{parameter_values_text(app, *parameters), parameter_group_text(app, app, *parameters)};
}

/** Merge a saved file with what is expected, or else with itself, and leave it at that. */
bool try_merge(const ConfigurationFile& file, const std::optional<std::string>& expected, Merge merge,
               VelkctlError** error) {
    if (!file.is_saved())
        return true;
    ErrorSlot unreadable;
    const std::optional<std::string> text = expected ? expected : read_file(file.name, unreadable);
    return !text || (write_area_file(file.workshop, file.current(), *text, error) && merge(file, error));
}

/** What a tree takes of its disk, in bytes. */
uint64_t used_by(const std::string& directory) {
    uint64_t blocks = 0;
    const int result = walk_tree(directory, {}, [&blocks](const TreeEntry& entry) {
        const uint64_t names = entry.is_directory || entry.status.st_nlink == 0 ? 1 : entry.status.st_nlink;
        blocks += static_cast<uint64_t>(entry.status.st_blocks) / names;
        return true;
    });
    (void)result;  // what cannot be read is not counted
    return blocks * 512;
}

bool lie_on_one_disk(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

bool check_room(const std::string& app, const StoreLocation& location, uint64_t version_size,
                VelkctlError** error) {
    struct statvfs disk {};
    if (statvfs(location.path, &disk) != 0)
        return true;  // import tells of a location that is not there
    const uint64_t required = used_by(backup_path(app)) + version_size;
    uint64_t available = static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
    const Application installed = find_application(app);
    if (available < required && installed.is_reachable() && lie_on_one_disk(installed.home(), location.path))
        available += used_by(installed.home());  // goes before the new version comes
    return available >= required ||
           fail(error, VELKCTL_ERROR_NO_SPACE,
                "No room for the saved data of %s. Required: %ju bytes, available: %ju bytes.", app.c_str(),
                uintmax_t{required}, uintmax_t{available});
}

}  // namespace

bool check_restorable(const std::string& app, const json_t* manifest, const StoreLocation& location,
                      uint64_t version_size, VelkctlError** error) {
    if (!backup_exists(app))
        return true;
    const std::optional<Expected> expected = expect_configuration(app, manifest, location, error);
    const std::optional<AreaDirectory> backups =
        expected ? open_area(dir_name(backup_path(app)).value_or(""), error) : std::nullopt;
    WorkingDirectory working_directory;
    if (!backups || !working_directory.remember(error) || !working_directory.enter(backup_path(app), error))
        return false;
    Workshop workshop(*backups, app + ".merge");
    if (!workshop.make(error))
        return false;
    // Only its path is asked for.
    const AreaDirectory conf(UniqueFd(), paths::store_root_path(app) + "/conf");
    const ConfigurationFile settings{app, conf, workshop.directory(), app + ".conf"};
    const ConfigurationFile parameters{app, conf, workshop.directory(), "param_" + app + ".conf"};
    return try_merge(settings, (*expected)[0], merge_key_file, error) &&
           try_merge(parameters, (*expected)[1], merge_parameter_file, error) &&
           check_room(app, location, version_size, error);
}

int velkctl_restore(const std::string& app, VelkctlError** error) {
    const char* app_name = app.c_str();
    assert(app_name && error);
    OperationLock lock;
    if (!lock_app_for_operation(app, "restore", &lock, error) || !require_restorable(app, error))
        return -1;
    const std::optional<AppOwner> owner = application_owner(app_name, error);
    const gid_t gid = owner ? find_group_id(owner->group, error) : static_cast<gid_t>(-1);
    const uid_t uid =
        gid != static_cast<gid_t>(-1) ? find_user_id(owner->user, error) : static_cast<uid_t>(-1);
    WorkingDirectory working_directory;
    if (uid == static_cast<uid_t>(-1) || !working_directory.remember(error) ||
        !working_directory.enter(backup_path(app), error))
        return -1;
    end_left_processes(app);
    std::optional<AreaDirectory> application = open_area(paths::store_root_path(app), error);
    std::optional<AreaDirectory> backups =
        application ? open_area(dir_name(backup_path(app)).value_or(""), error) : std::nullopt;
    if (!backups)
        return -1;
    const Restoration restoration{app, uid, gid, std::move(*application), std::move(*backups)};
    const bool restored = restore_configuration(restoration, error) && reload_parameters(app, error) &&
                          restore_data(restoration, error);
    return restored ? 0 : -1;
}
