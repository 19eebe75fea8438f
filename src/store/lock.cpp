#include "store/lock.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/names.h"
#include "store/velkctl-store.h"
#include "system/file.h"
#include "system/subprocess.h"
#include "system/systemctl.h"

static constexpr const char* kTemporaryEnding = ".tmp";
static constexpr int kTemporaryEndingLength = 4;
static constexpr int kLockDirectoryMode = 0700;
/** A sweep takes a new temporary file away in the moment before it is linked, and hardly twice. */
static constexpr int kAttempts = 10;
static constexpr size_t kReadBlock = 4096;

static int lock_counter = 0;
/**
 * The lock file that this process holds, with the advisory lock that says so. It is a record lock, which a
 * child does not inherit: what outlives this process does not keep the lock. Such a lock ends as soon as the
 * process closes any descriptor of the file, so nothing else opens the file as long as this one is open.
 */
static UniqueFd held_file;

static std::string lock_directory() { return dir_name(paths::kLockFile).value_or("/"); }

static bool make_lock_directory(VelkctlError** error) {
    const std::string directory = lock_directory();
    if (g_mkdir_with_parents(directory.c_str(), kLockDirectoryMode) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed creating directory %s: %s", directory.c_str(),
                      system_error_text().c_str());
    return false;
}

static void remove_temporary(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        log_warning("Could not delete temporary file %s: %s", path.c_str(), system_error_text().c_str());
}

/** Lock the file for this process, without waiting. The errno tells why not: EAGAIN or EACCES when it is
 * held. */
static bool lock_descriptor(int fd) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &whole) == 0;
}

static void set_locked_error(VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_LOCKED,
                      "Another instance is already running, lock file exists: %s", paths::kLockFile);
}

static bool is_same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/** Whether `path` is a name of the open file. */
static bool is_name_of(const std::string& path, int fd) {
    struct stat named {};
    struct stat open {};
    return fstat(fd, &open) == 0 && lstat(path.c_str(), &named) == 0 && is_same_file(named, open);
}

// --- Notes ---

// A note is a further name of the lock file itself, made of a word and the file's number: so it belongs to
// this lock and to no other. As long as it is there no other file can get that number, and what an earlier
// lock left is never taken for this one's.

/** What the name of every note of the open file ends with. */
static std::string note_ending(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? "." + std::to_string(status.st_ino) : "";
}

static std::string note_path(const std::string& word, int fd) {
    return lock_directory() + "/" + word + note_ending(fd);
}

static bool leave_note(const std::string& word, int fd, VelkctlError** error) {
    const std::string note = note_path(word, fd);
    const std::string file = std::string(paths::kOwnDescriptors) + "/" + std::to_string(fd);
    if (linkat(AT_FDCWD, file.c_str(), AT_FDCWD, note.c_str(), AT_SYMLINK_FOLLOW) == 0 ||
        (errno == EEXIST && is_name_of(note, fd)))
        return true;
    return FAIL_GENERAL(error, "Failed creating file %s: %s", note.c_str(), system_error_text().c_str());
}

/** Call `visit` with the path of everything in the lock's directory that is called like a note. */
template <typename Visit>
static void visit_notes(const Visit& visit) {
    const std::string directory = lock_directory();
    const DirectoryPtr entries(opendir(directory.c_str()));
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
        const std::string name = entry->d_name;
        const size_t number = name.rfind('.') + 1;
        if (number > 1 && number < name.size() &&
            name.find_first_not_of("0123456789", number) == std::string::npos)
            visit(directory + "/" + name);
    }
}

static void remove_notes(int fd) {
    visit_notes([fd](const std::string& note) {
        if (is_name_of(note, fd))
            remove_temporary(note);
    });
}

/** Take away the notes of locks that are gone. One that somebody is about to take is locked already. */
static void remove_stale_notes() {
    visit_notes([](const std::string& note) {
        // To open and close a further name of the file that this process holds would end its lock.
        if (held_file && is_name_of(note, held_file.get()))
            return;
        const UniqueFd fd(open(note.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (fd && lock_descriptor(fd.get()))
            remove_temporary(note);
    });
}

bool lockfile_note(const std::string& word, VelkctlError** error) {
    if (!held_file)
        return true;
    if (!leave_note(word, held_file.get(), error))
        return false;
    return flush_path(lock_directory(), error);
}

bool lockfile_has_note(const std::string& word) {
    return held_file && is_name_of(note_path(word, held_file.get()), held_file.get());
}

void lockfile_forget_note(const std::string& word) {
    if (lockfile_has_note(word))
        remove_temporary(note_path(word, held_file.get()));
    sync();
}

// --- Taking and giving back ---

// The lock and the note are there before the content is, and the content is complete and on the disk before
// the link gives it the lock's name: no lock file is ever partial, and none of a living process is without
// its advisory lock.
static bool fill_lock_file(const std::string& temporary, int fd, const std::string& content,
                           const std::string& note, VelkctlError** error) {
    if (!lock_descriptor(fd))
        return FAIL_GENERAL(error, "Failed locking temporary lock file %s: %s", temporary.c_str(),
                            system_error_text().c_str());
    const ssize_t written = write(fd, content.data(), content.size());
    if (written != static_cast<ssize_t>(content.size()))
        return FAIL_GENERAL(error, "Failed writing to temporary lock file %s: %s", temporary.c_str(),
                            system_error_text().c_str());
    return note.empty() || leave_note(note, fd, error);
}

/** The link fails when the name exists, whoever was faster. `swept` tells that the temporary file is gone. */
static bool link_lock_file(const std::string& temporary, int fd, bool* swept, VelkctlError** error) {
    sync();
    if (link(temporary.c_str(), paths::kLockFile) == 0) {
        sync();
        return true;
    }
    const int reason = errno;
    *swept = reason == ENOENT && !is_name_of(temporary, fd);
    remove_notes(fd);
    if (reason == EEXIST)
        set_locked_error(error);
    else if (!*swept)
        SET_GENERAL_ERROR(error, "Failed creating file %s: %s", paths::kLockFile,
                          system_error_text(reason).c_str());
    return false;
}

/** One attempt to take the lock; it may be made again when `swept` comes back, and no error is set then. */
static bool try_to_take(const std::string& content, const std::string& note, bool* swept,
                        VelkctlError** error) {
    *swept = false;
    std::string temporary = std::string(paths::kLockFile) + "_XXXXXX" + kTemporaryEnding;
    UniqueFd fd(mkostemps(temporary.data(), kTemporaryEndingLength, O_CLOEXEC));
    if (!fd)
        SET_GENERAL_ERROR(error, "Could not create temporary file: %s: %s", temporary.c_str(),
                          system_error_text().c_str());
    const bool taken = fd && fill_lock_file(temporary, fd.get(), content, note, error) &&
                       link_lock_file(temporary, fd.get(), swept, error);
    remove_temporary(temporary);
    if (!taken)
        return false;
    held_file = std::move(fd);
    lock_counter++;
    return true;
}

bool lockfile_create(const char* appname, VelkctlError** error) {
    return lockfile_create(appname, "", error);
}

bool lockfile_create(const char* appname, const std::string& note, VelkctlError** error) {
    if (lock_counter > 0) {
        lock_counter++;
        return true;
    }
    if (!appname || !*appname)
        return fail(error, VELKCTL_ERROR_GENERAL, "%s: Invalid argument: %s is NULL or empty",
                    "lockfile_create", "appname");
    // Nothing is changed yet: the last moment at which nothing is to be taken back.
    if (fail_when_interrupted(error) || !ensure_store_root(error) || !make_lock_directory(error))
        return false;
    bool swept = true;
    for (int left = kAttempts; swept && left > 0; left--)
        if (try_to_take(appname, note, &swept, error))
            return true;
    if (swept)
        set_locked_error(error);
    return false;
}

/** Whether another command's lock file lies at the lock's path, since somebody deleted this one's by hand. */
static bool is_lock_of_another() {
    struct stat status {};
    return held_file && lstat(paths::kLockFile, &status) == 0 &&
           !is_name_of(paths::kLockFile, held_file.get());
}

void lockfile_release() {
    if (lock_counter == 0)
        return;
    lock_counter--;
    if (lock_counter > 0)
        return;
    if (held_file)
        remove_notes(held_file.get());
    remove_stale_notes();  // of a lock that somebody deleted by hand
    if (is_lock_of_another())
        log_general_error("%sUnlinking lock file failed: It is another command's", LOG_PREAMBLE);
    else if (unlink(paths::kLockFile) != 0)
        log_general_error("%sUnlinking lock file failed: %s", LOG_PREAMBLE, system_error_text().c_str());
    held_file.reset();
    sync();
}

bool lockfile_remove(VelkctlError** error) {
    if (held_file)
        remove_notes(held_file.get());
    if (!is_lock_of_another() && !remove_file(paths::kLockFile, error))
        return false;
    run_command(nullptr, "rm -f %s*.tmp > /dev/null 2>&1", {paths::kLockFile});
    remove_stale_notes();
    sync();
    lock_counter = 0;
    held_file.reset();
    return true;
}

/** What the open file holds; nothing with the errno when it cannot be read. */
static std::optional<std::string> read_open_file(int fd) {
    std::string text;
    char block[kReadBlock];
    ssize_t got = 0;
    while ((got = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0)
        text.append(block, static_cast<size_t>(got));
    return got == 0 ? std::optional(std::move(text)) : std::nullopt;
}

bool lockfile_read(std::string* content, VelkctlError** error) {
    if (!content) {
        set_null_argument_error(error, "lockfile_read", "appname");
        return false;
    }
    ErrorSlot reason;
    std::optional<std::string> text =
        held_file ? read_open_file(held_file.get()) : read_file(paths::kLockFile, reason);
    if (text) {
        *content = std::move(*text);
        return true;
    }
    if (held_file)
        SET_GENERAL_ERROR(reason, "%s", system_error_text().c_str());
    ErrorSlot existence;
    if (path_exists(paths::kLockFile, existence) || existence.is_set())
        SET_GENERAL_ERROR(error, "Failed reading file: %s: Error: %s", paths::kLockFile, reason.message());
    return false;
}

bool lockfile_seize(bool* found, VelkctlError** error) {
    assert(!held_file);
    while (true) {
        UniqueFd fd(open(paths::kLockFile, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        *found = fd || errno != ENOENT;
        struct stat status {};
        // What is no file of that name was made by no command, and nobody lives who holds it.
        if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
            return true;
        if (!lock_descriptor(fd.get()) && (errno == EAGAIN || errno == EACCES)) {
            set_locked_error(error);
            return false;
        }
        // Between the opening and the lock its holder may have given it back, and another taken it.
        if (is_name_of(paths::kLockFile, fd.get())) {
            held_file = std::move(fd);
            return true;
        }
    }
}

void lockfile_take_over() {
    assert(lock_counter == 0);
    lock_counter = 1;
}

bool OperationLock::take(const std::string& app, VelkctlError** error) { return take(app, "", error); }

bool OperationLock::take(const std::string& app, const std::string& note, VelkctlError** error) {
    if (!lockfile_create(app.c_str(), note, error))
        return false;
    levels_++;
    return true;
}

void OperationLock::release() {
    for (; levels_ > 0; levels_--)
        lockfile_release();
}

bool is_set_up(const std::string& app) {
    return is_regular_file(paths::service_unit_path(app)) && !owner_of_polling_service(app);
}

bool lock_app_for_operation(const std::string& app, const char* command, OperationLock* lock,
                            VelkctlError** error) {
    return is_valid_app_name(app, error) && lock->take(app, command, error) &&
           require_application_stopped(app, command, error) && require_app_present(app, error);
}

bool lock_app_not_set_up(const std::string& app, const char* command, OperationLock* lock,
                         VelkctlError** error) {
    if (!is_valid_app_name(app, error) || !lock->take(app, error) || !require_app_present(app, error))
        return false;
    if (!is_set_up(app))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Application %s is set up. Please run teardown before running 'velkctl %s'.",
                      app.c_str(), command);
    return false;
}
