#include "pack/velk-pack-build.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "manifest/names.h"
#include "pack/output-file.h"
#include "pack/pack-error.h"
#include "pack/progress.h"
#include "system/file.h"

using ArchivePtr = std::unique_ptr<archive, ReleaseWith<archive_write_free>>;
using EntryPtr = std::unique_ptr<archive_entry, ReleaseWith<archive_entry_free>>;

static constexpr size_t kBlock = 256 << 10;

namespace {

/** Where the archive's bytes go, with the first error on the way. */
struct Sink {
    OutputFile file;
    uint64_t size = 0;
    bool has_failed = false;
    ErrorSlot error;
};

la_ssize_t write_block(archive*, void* data, const void* bytes, size_t length) {
    Sink& sink = *static_cast<Sink*>(data);
    // The archive tries again to write what it still holds when it is given up.
    sink.has_failed =
        sink.has_failed || !sink.file.write({static_cast<const char*>(bytes), length}, sink.error);
    if (sink.has_failed)
        return -1;
    sink.size += length;
    return static_cast<la_ssize_t>(length);
}

/** The archive's own text, unless the reason is that it could not be written. */
bool fail_archive(archive* writer, Sink& sink, const std::string& name, VelkctlError** error) {
    if (sink.error.is_set()) {
        sink.error.move_to(error);
        return false;
    }
    const char* text = archive_error_string(writer);
    return fail_with(error, VELKCTL_ERROR_GENERAL, name, text ? text : "cannot be packed");
}

bool open_archive(archive* writer, Sink& sink, bool compress, const std::string& output,
                  VelkctlError** error) {
    if (archive_write_set_format_gnutar(writer) == ARCHIVE_OK &&
        (!compress ||
         (archive_write_add_filter_gzip(writer) == ARCHIVE_OK &&
          // Without the option the archive would hold the time of its making.
          archive_write_set_filter_option(writer, "gzip", "timestamp", nullptr) == ARCHIVE_OK)) &&
        archive_write_set_bytes_in_last_block(writer, 1) == ARCHIVE_OK &&
        archive_write_open(writer, &sink, nullptr, write_block, nullptr) == ARCHIVE_OK)
        return true;
    return fail_archive(writer, sink, output, error);
}

/** The header of a member; of the file's own properties only those that a package keeps. */
EntryPtr header_of(const FolderEntry& entry, const std::string& link) {
    EntryPtr header(archive_entry_new());
    const mode_t mode = entry.status.st_mode;
    const bool is_executable = S_ISDIR(mode) || (mode & S_IXUSR) != 0;
    archive_entry_set_pathname(header.get(), entry.name.c_str());
    archive_entry_set_filetype(header.get(), mode & S_IFMT);
    archive_entry_set_perm(header.get(), S_ISLNK(mode) ? 0777 : is_executable ? 0755 : 0644);
    archive_entry_set_uname(header.get(), "root");
    archive_entry_set_gname(header.get(), "root");
    archive_entry_set_size(header.get(), S_ISREG(mode) ? entry.status.st_size : 0);
    if (S_ISLNK(mode))
        archive_entry_set_symlink(header.get(), link.c_str());
    return header;
}

bool read_link(const FolderEntry& entry, std::string* link, VelkctlError** error) {
    char target[PATH_MAX];
    const ssize_t length = readlink(entry.path.c_str(), target, sizeof target);
    if (length < 0)
        return fail_with_system_error(error, entry.path, "cannot be read");
    link->assign(target, static_cast<size_t>(length));
    return true;
}

bool add_contents(archive* writer, Sink& sink, const FolderEntry& entry, ProgressBar& bar,
                  VelkctlError** error) {
    const UniqueFd file(open(entry.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file)
        return fail_with_system_error(error, entry.path, "cannot be read");
    std::vector<char> block(kBlock);
    off_t left = entry.status.st_size;
    while (left > 0) {
        const ssize_t got = read(file.get(), block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return fail_with_system_error(error, entry.path, "cannot be read");
        if (got == 0 || got > left)
            return fail_with(error, VELKCTL_ERROR_GENERAL, entry.path, "changed while it was packed");
        if (archive_write_data(writer, block.data(), static_cast<size_t>(got)) != got)
            return fail_archive(writer, sink, entry.path, error);
        left -= got;
        bar.advance(static_cast<uint64_t>(got));
    }
    return true;
}

bool add_entry(archive* writer, Sink& sink, const FolderEntry& entry, ProgressBar& bar,
               VelkctlError** error) {
    std::string link;
    if (S_ISLNK(entry.status.st_mode) && !read_link(entry, &link, error))
        return false;
    if (archive_write_header(writer, header_of(entry, link).get()) != ARCHIVE_OK)
        return fail_archive(writer, sink, entry.path, error);
    return !S_ISREG(entry.status.st_mode) || add_contents(writer, sink, entry, bar, error);
}

bool check_output(const Folder& folder, const std::string& output, VelkctlError** error) {
    ErrorSlot broken_rule;
    if (!check_package_file_name(output, broken_rule))
        return fail_with(error, VELKCTL_ERROR_GENERAL, output, broken_rule.message());
    const std::optional<std::string> above = dir_name(output);
    ErrorSlot not_there;
    const std::optional<std::string> directory = canonical_path(!above           ? "."
                                                                : above->empty() ? "/"
                                                                                 : *above,
                                                                not_there);
    if (!directory)
        return fail_with(error, VELKCTL_ERROR_GENERAL, output, "the folder for it does not exist");
    // It would be packed itself the next time.
    if ((*directory + "/").starts_with(folder.path + "/"))
        return fail_with(error, VELKCTL_ERROR_GENERAL, output, "lies in the folder that is to be packed");
    return true;
}

}  // namespace

bool velk_pack_build(const Folder& folder, const std::string& output, bool compress, BuildResult* result,
                     VelkctlError** error) {
    if (!check_output(folder, output, error))
        return false;
    Sink sink;
    if (!sink.file.create(output, error))
        return false;
    const ArchivePtr writer(archive_write_new());
    ProgressBar bar("packing", folder.content_size);
    if (!open_archive(writer.get(), sink, compress, output, error))
        return false;
    for (const FolderEntry& entry : folder.entries)
        if (!add_entry(writer.get(), sink, entry, bar, error))
            return false;
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        return fail_archive(writer.get(), sink, output, error);
    if (!sink.file.keep(error))
        return false;
    *result = {output, folder.entries.size(), folder.content_size, sink.size};
    return true;
}
