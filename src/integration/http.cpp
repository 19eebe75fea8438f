#include "integration/http.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <set>

#include "base/log.h"
#include "base/paths.h"
#include "integration/own-files.h"
#include "integration/web-text.h"
#include "manifest/names.h"
#include "system/area.h"
#include "system/file.h"
#include "system/systemctl.h"
#include "system/tree.h"
#include "system/user-database.h"

namespace {

constexpr uid_t NO_USER = static_cast<uid_t>(-1);
constexpr gid_t NO_GROUP = static_cast<gid_t>(-1);
constexpr unsigned RELOAD_RECOVERY_S = 5;

// The web server takes some twenty times as much memory. These are about 30,000 pages.
constexpr size_t LARGEST_CONFIGURATION = 2 << 20;
constexpr size_t RULE_FRAME = 50;  // what stands around a name in the rules

const char* access_group_name(AccessLevel access) {
    switch (access) {
        case ACCESS_ADMIN:
            return "admin";
        case ACCESS_OPERATOR:
            return "operator";
        case ACCESS_VIEWER:
            return "viewer";
    }
    assert(false && "access level");
    return "admin";
}

std::string fcgi_socket_name(const std::string& app) { return app + "_fcgi.socket"; }

/** What the steps of the set-up share. */
struct WebSetup {
    const ParsedManifest& parsed;
    AreaDirectory application;
    AreaDirectory html;
    bool layer_file_store;
    uid_t uid;
    gid_t www_gid;
    gid_t viewer_gid;
    gid_t operator_gid;
    gid_t default_gid;  ///< of the group that decides the access to plain files
};

bool look_up_group(const char* name, gid_t* gid, VelkctlError** error) {
    *gid = find_group_id(name, error);
    return *gid != NO_GROUP;
}

// --- CGI entries ---

bool create_web_file(const WebSetup& web, const std::string& name, AccessLevel access, VelkctlError** error) {
    gid_t gid = NO_GROUP;
    return look_up_group(access_group_name(access), &gid, error) &&
           check_path_in_app_dir(web.html.path_of(name), web.application.path(), error) &&
           create_area_file(web.html, name, 0750, web.uid, gid, error);
}

std::vector<std::string> cgi_names(const ParsedManifest& parsed, CgiType type) {
    std::vector<std::string> names;
    for (const CgiEntry& entry : parsed.cgiEntries)
        if (entry.type == type)
            names.push_back(entry.name);
    return names;
}

/** What is wrong with a snippet for these names or addresses, as an error number; 0 for nothing. */
int snippet_fault(const std::string& text, const std::vector<std::string>& names) {
    if (!std::all_of(names.begin(), names.end(), fits_configuration))
        return ENAMETOOLONG;
    return text.size() > LARGEST_CONFIGURATION ? EFBIG : 0;
}

/** Write the application's own copy of a snippet, then the one that the web server reads. */
bool write_snippet(const WebSetup& web, const char* copy, const std::string& active, const std::string& text,
                   const std::vector<std::string>& names, VelkctlError** error) {
    if (const int fault = snippet_fault(text, names))
        return FAIL_GENERAL(error, "Failed writing to file: %s: %s", active.c_str(),
                            system_error_text(fault).c_str());
    const std::optional<AreaDirectory> conf = open_area_directory(web.application, "conf", error);
    return conf && write_area_file(*conf, copy, text, error) && write_file(active, text, error);
}

/** An address is written as it is: one in which the server would see a variable cannot be written. */
bool check_addresses(const ParsedManifest& parsed, VelkctlError** error) {
    for (const std::string& name : cgi_names(parsed, CGI_TRANSFER))
        if (names_variable(name))
            return fail(error, VELKCTL_ERROR_INVALID_MANIFEST,
                        "Field '%s' in manifest contains a variable of the web server", "httpConfig.name");
    return true;
}

bool setup_cgi(const WebSetup& web, VelkctlError** error) {
    const std::string& app = web.parsed.appName;
    for (const CgiEntry& entry : web.parsed.cgiEntries)
        if (!create_web_file(web, entry.name, entry.access, error))
            return false;
    const std::vector<std::string> transfers = cgi_names(web.parsed, CGI_TRANSFER);
    std::vector<std::string> addresses;
    for (const std::string& name : transfers)
        addresses.push_back(transfer_address(app, name));
    if (!transfers.empty() && !write_snippet(web, "transfercgi.conf", paths::transfer_snippet(app),
                                             transfer_text(app, transfers), addresses, error))
        return false;
    const std::vector<std::string> scripts = cgi_names(web.parsed, CGI_FAST);
    if (scripts.empty())
        return true;
    const std::string text =
        fcgi_text(paths::web_directory(app), fcgi_socket_path(web.application.path(), app), scripts);
    return create_web_file(web, fcgi_socket_name(app), ACCESS_VIEWER, error) &&
           write_snippet(web, "fcgi.conf", paths::fcgi_snippet(app), text, scripts, error);
}

// --- Ownership and access rules ---

bool give_license(const WebSetup& web, VelkctlError** error) {
    if (!web.layer_file_store) {
        const std::optional<AreaFile> license =
            open_area_file(web.application, "LICENSE", "Failed setting ownership of", error);
        if (!license || !license->set_owner(web.uid, web.www_gid, error) || !license->set_mode(0640, error))
            return false;
    }
    return make_area_link_if_absent(web.html, web.application.path_of("LICENSE"), "LICENSE", error);
}

/** The names of the CGI entries as paths below the web directory, each in its shortest form. */
std::set<std::string> listed_files(const ParsedManifest& parsed) {
    std::set<std::string> listed;
    for (const CgiEntry& entry : parsed.cgiEntries) {
        const GStringPtr path(g_canonicalize_filename(entry.name.c_str(), "/"));
        listed.insert(path.get());
    }
    return listed;
}

bool fail_reading_pages(const ParsedManifest& parsed, int number, VelkctlError** error) {
    return FAIL_GENERAL(error, "Failed reading files in directory %s: %s",
                        paths::web_directory(parsed.appName).c_str(), system_error_text(number).c_str());
}

/** Gathers the access rules of a web tree while it is walked, and opens its plain files to the web server. */
class RuleCollector {
  public:
    explicit RuleCollector(const WebSetup& web) : web_(web), listed_(listed_files(web.parsed)) {}

    bool visit(const TreeEntry& entry, VelkctlError** error) {
        const bool is_file = S_ISREG(entry.status.st_mode);
        if (!entry.is_directory && !is_file)
            return true;
        const std::string& below = entry.below;
        if (!check_no_newline(base_name(below), "html", error)) {
            if (error && *error)
                (*error)->code = VELKCTL_ERROR_GENERAL;
            return false;
        }
        const std::string published = paths::web_directory(web_.parsed.appName) + below;
        size_ += (entry.is_directory ? published : base_name(below)).size() + RULE_FRAME;
        if (size_ > LARGEST_CONFIGURATION || !fits_configuration(published))
            return fail_reading_pages(web_.parsed, size_ > LARGEST_CONFIGURATION ? EFBIG : ENAMETOOLONG,
                                      error);
        return entry.is_directory ? enter(entry, published) : add_file(entry, below, error);
    }

    [[nodiscard]] const std::vector<WebDirectory>& directories() const { return directories_; }

  private:
    bool enter(const TreeEntry& entry, const std::string& published) {
        way_.resize(entry.level);
        way_.push_back(directories_.size());
        directories_.push_back({published, {}});
        return true;
    }

    bool add_file(const TreeEntry& entry, const std::string& below, VelkctlError** error) {
        const std::string name = base_name(below);
        gid_t gid = entry.status.st_gid;
        if (name != "LICENSE" && !name.ends_with("_fcgi.socket") && !listed_.contains(below)) {
            gid = web_.default_gid;
            bool vanished = false;
            if (!web_.layer_file_store && !open_to_web_server(entry, below, &vanished, error))
                return vanished;
        }
        directories_[way_[entry.level - 1]].files.push_back({name, group_of(gid)});
        return true;
    }

    [[nodiscard]] std::string group_of(gid_t gid) const {
        return gid == web_.viewer_gid ? "viewer" : gid == web_.operator_gid ? "operator" : "admin";
    }

    /** Let the web server, and nobody else, read the file, and look into its directory. */
    bool open_to_web_server(const TreeEntry& entry, const std::string& below, bool* vanished,
                            VelkctlError** error) {
        const std::string path = web_.html.path() + below;
        const UniqueFd file(openat(entry.directory, entry.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!file && errno == ENOENT) {
            log_warning("Failed to add Apache permission configs for file %s, file does not exist",
                        path.c_str());
            *vanished = true;
            return false;
        }
        if (!file) {
            SET_GENERAL_ERROR(error, "Failed reading status of file %s: %s", path.c_str(),
                              system_error_text().c_str());
            return false;
        }
        return set_group_and_mode(entry.directory, dir_name(path).value_or(path), 0754, error) &&
               set_group_and_mode(file.get(), path, 0640, error);
    }

    bool set_group_and_mode(int fd, const std::string& path, mode_t mode, VelkctlError** error) const {
        return set_open_owner(fd, path, NO_USER, web_.www_gid, error) && set_open_mode(fd, path, mode, error);
    }

    const WebSetup& web_;
    std::set<std::string> listed_;
    size_t size_ = 0;  ///< of the rules so far, escaping aside
    std::vector<WebDirectory> directories_;
    std::vector<size_t>
        way_;  ///< the directories from the root to the one being walked, as places in the list
};

bool write_access_rules(const WebSetup& web, VelkctlError** error) {
    RuleCollector rules(web);
    ErrorSlot refused;
    const int result = walk_tree(web.html.fd(), {.with_paths = true},
                                 [&](const TreeEntry& entry) { return rules.visit(entry, refused); });
    if (refused.is_set()) {
        refused.move_to(error);
        return false;
    }
    if (result != 0)
        return fail_reading_pages(web.parsed, result, error);
    return write_file(paths::access_rules(web.parsed.appName), access_rules_text(rules.directories()), error);
}

bool open_directories_to_web_server(const WebSetup& web, VelkctlError** error) {
    const int result = web.layer_file_store ? 0 : set_dir_mode_recursive(web.html.fd());
    if (result == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed recursively setting permissions for subdirectories in directory %s: %s",
                      web.html.path().c_str(), system_error_text(result).c_str());
    return false;
}

bool publish(const WebSetup& web, VelkctlError** error) {
    return make_symlink(web.html.path(), paths::web_directory(web.parsed.appName), error) &&
           setup_cgi(web, error) &&
           set_open_owner(web.html.fd(), web.html.path(), web.uid, web.www_gid, error) &&
           give_license(web, error) && write_access_rules(web, error) &&
           open_directories_to_web_server(web, error);
}

// --- What is the application's own ---

/** How each of the files begins that are written for an application, and nobody else's. */
bool is_own_transfer_snippet(const std::string& app) {
    return beginning_of(paths::transfer_snippet(app)).starts_with(transfer_mark(app));
}
bool is_own_fcgi_snippet(const std::string& app) {
    return beginning_of(paths::fcgi_snippet(app)).starts_with(directory_mark(paths::web_directory(app)));
}
bool is_own_access_rules(const std::string& app) {
    return beginning_of(paths::access_rules(app)).starts_with(directory_mark(paths::web_directory(app)));
}

/**
 * Whether the directory of the transfer socket is there and is somebody else's. The application's program
 * makes it, so it is its user's: the present one, or one that is gone, whose number is nobody's.
 */
bool is_foreign_socket_directory(const struct stat& status, uid_t own_uid) {
    return status.st_uid == 0 || (status.st_uid != own_uid && getpwuid(status.st_uid) != nullptr);
}

/** Nothing of the image's is to be replaced, and nobody else is to hear the application's requests. */
bool check_names_are_own(const ParsedManifest& parsed, uid_t uid, VelkctlError** error) {
    const std::string& app = parsed.appName;
    struct stat status {};
    const std::string sockets = paths::transfer_socket_directory(app);
    if (lstat(sockets.c_str(), &status) == 0 && is_foreign_socket_directory(status, uid) &&
        (status.st_uid == 0 || !cgi_names(parsed, CGI_TRANSFER).empty()))
        return FAIL_GENERAL(error, "Could not create directory %s: %s", sockets.c_str(),
                            system_error_text(EEXIST).c_str());
    return check_is_own(paths::transfer_snippet(app), is_own_transfer_snippet(app), error) &&
           check_is_own(paths::fcgi_snippet(app), is_own_fcgi_snippet(app), error) &&
           check_is_own(paths::access_rules(app), is_own_access_rules(app), error);
}

bool remove_socket_directory(const std::string& app, const std::optional<std::string>& user,
                             VelkctlError** error) {
    const std::string sockets = paths::transfer_socket_directory(app);
    ErrorSlot unknown;
    const uid_t uid = user ? find_user_id(*user, unknown) : NO_USER;
    struct stat status {};
    return lstat(sockets.c_str(), &status) != 0 || is_foreign_socket_directory(status, uid) ||
           remove_recursive(sockets, error);
}

}  // namespace

std::string fcgi_socket_path(const std::string& directory, const std::string& app) {
    return directory + "/html/" + fcgi_socket_name(app);
}

bool setup_http(const ParsedManifest& parsed, const std::string& directory, bool layer_file_store,
                const std::string& user, const std::string& group, VelkctlError** error) {
    gid_t group_gid = NO_GROUP;
    gid_t www_gid = NO_GROUP;
    gid_t viewer_gid = NO_GROUP;
    gid_t operator_gid = NO_GROUP;
    gid_t default_gid = NO_GROUP;
    const uid_t uid = check_addresses(parsed, error) ? find_user_id(user, error) : NO_USER;
    if (uid == NO_USER || !look_up_group(group.c_str(), &group_gid, error))
        return false;
    std::optional<AreaDirectory> application =
        check_names_are_own(parsed, uid, error) ? open_area(directory, error) : std::nullopt;
    std::optional<AreaDirectory> html =
        application ? make_area_directory(*application, "html", error) : std::nullopt;
    if (!html || !look_up_group("www", &www_gid, error) || !look_up_group("viewer", &viewer_gid, error) ||
        !look_up_group("operator", &operator_gid, error) ||
        !look_up_group(access_group_name(parsed.directoryAccess), &default_gid, error))
        return false;
    const WebSetup web{parsed,
                       std::move(*application),
                       std::move(*html),
                       layer_file_store,
                       uid,
                       www_gid,
                       viewer_gid,
                       operator_gid,
                       default_gid};
    return publish(web, error);
}

bool teardown_http(const std::string& directory, const std::string& app,
                   const std::optional<std::string>& user, VelkctlError** error) {
    return try_each(
        {
            [&](VelkctlError** failure) {
                return remove_own_file(paths::transfer_snippet(app), is_own_transfer_snippet(app), failure);
            },
            [&](VelkctlError** failure) {
                return remove_file_in_application(directory, "conf", "transfercgi.conf", failure);
            },
            [&](VelkctlError** failure) { return remove_socket_directory(app, user, failure); },
            [&](VelkctlError** failure) {
                return remove_own_file(paths::fcgi_snippet(app), is_own_fcgi_snippet(app), failure);
            },
            [&](VelkctlError** failure) {
                return remove_file_in_application(directory, "conf", "fcgi.conf", failure);
            },
            [&](VelkctlError** failure) {
                return remove_file_in_application(directory, "html", fcgi_socket_name(app), failure);
            },
            [&](VelkctlError** failure) {
                return remove_own_link(paths::web_directory(app), directory + "/html", failure);
            },
            [&](VelkctlError** failure) {
                return remove_own_file(paths::access_rules(app), is_own_access_rules(app), failure);
            },
        },
        error);
}

void reload_web_server() {
    ErrorSlot error;
    if (systemctl_reload_web_server(error))
        return;
    log_warning("Failed reloading httpd: %s", error.message());
    error.clear();
    sleep(RELOAD_RECOVERY_S);
    if (systemctl_start("httpd", error))
        log_info("Started httpd successfully after a failed reload");
    else
        log_warning("Failed to start httpd: %s", error.message());
}
