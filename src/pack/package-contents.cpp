#include "pack/package-contents.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "base/handles.h"
#include "pack/pack-error.h"
#include "pack/progress.h"

using ArchivePtr = std::unique_ptr<archive, ReleaseWith<archive_read_free>>;

static constexpr size_t kManifestLimit = 16 << 20;
/** What the list of members may take; a quarter of a million of them with short names. */
static constexpr size_t kListLimit = 32 << 20;
static constexpr size_t kListedMember = 128;

namespace {

/** The data part on its way into the archive reader. */
struct Source {
    const PackageFile& package;
    const BlockUse& use;
    ProgressBar bar;
    uint64_t position = 0;
    std::string block = {};
    bool is_compressed = false;
    ErrorSlot error = {};
};

/** Read the next block and show it to whoever wants to see it. */
bool next_block(Source& source) {
    const bool is_first = source.position == 0;
    if (!read_data_block(source.package, &source.position, &source.block, source.error))
        return false;
    if (is_first)
        source.is_compressed = begins_as_gzip(source.block);
    source.bar.advance(source.block.size());
    return source.use(source.block, source.error);
}

la_ssize_t read_block(archive*, void* data, const void** bytes) {
    Source& source = *static_cast<Source*>(data);
    if (!next_block(source))
        return -1;
    *bytes = source.block.data();
    return static_cast<la_ssize_t>(source.block.size());
}

bool fail_archive(archive* reader, Source& source, VelkctlError** error) {
    if (source.error.is_set()) {
        source.error.move_to(error);
        return false;
    }
    const char* text = archive_error_string(reader);
    return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, source.package.path,
                     std::string("the archive cannot be read: ") + (text ? text : "no reason given"));
}

PackageMember member_of(archive_entry* header) {
    const char* name = archive_entry_pathname(header);
    const char* hard_link = archive_entry_hardlink(header);
    const mode_t type = archive_entry_filetype(header);
    const char letter = hard_link       ? '-'
                        : S_ISREG(type) ? '-'
                        : S_ISDIR(type) ? 'd'
                        : S_ISLNK(type) ? 'l'
                                        : '?';
    // The device of number 0 is a mark that anybody may make.
    const bool is_device = S_ISBLK(type) || (S_ISCHR(type) && archive_entry_rdev(header) != 0);
    std::string shown = name ? name : "";
    if (shown.size() > 1 && shown.ends_with('/'))
        shown.pop_back();
    return {std::move(shown),
            letter,
            static_cast<uint32_t>(archive_entry_perm(header)),
            static_cast<uint64_t>(archive_entry_size(header)),
            hard_link ? hard_link : "",
            is_device};
}

/** Take in a manifest, of which no more than the limit. */
bool read_manifest(archive* reader, Source& source, std::string* text, VelkctlError** error) {
    char block[16 << 10];
    la_ssize_t got = 0;
    while ((got = archive_read_data(reader, block, sizeof block)) > 0) {
        text->append(block, static_cast<size_t>(got));
        if (text->size() > kManifestLimit)
            return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, source.package.path,
                             "manifest.json: is larger than 16 MiB");
    }
    return got == 0 || fail_archive(reader, source, error);
}

bool read_members(archive* reader, Source& source, PackageContents* contents, VelkctlError** error) {
    archive_entry* header = nullptr;
    int result = 0;
    size_t listed = 0;
    while ((result = archive_read_next_header(reader, &header)) == ARCHIVE_OK || result == ARCHIVE_WARN) {
        PackageMember member = member_of(header);
        const bool is_manifest =
            member.type == '-' && member.hard_link.empty() && unpacked_name(member.name) == "manifest.json";
        listed += kListedMember + member.name.size() + member.hard_link.size();
        contents->size += member.size;
        contents->members.push_back(std::move(member));
        if (is_manifest) {
            std::string text;
            if (!read_manifest(reader, source, &text, error))
                return false;
            listed += text.size();
            contents->manifests.emplace_back(contents->members.size() - 1, std::move(text));
        }
        if (listed > kListLimit)
            return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, source.package.path,
                             "the archive has more names than any application");
    }
    return result == ARCHIVE_EOF || fail_archive(reader, source, error);
}

bool read_archive(Source& source, PackageContents* contents, VelkctlError** error) {
    const ArchivePtr reader(archive_read_new());
    if (archive_read_support_format_tar(reader.get()) != ARCHIVE_OK ||
        archive_read_support_filter_gzip(reader.get()) != ARCHIVE_OK ||
        archive_read_open(reader.get(), &source, nullptr, read_block, nullptr) != ARCHIVE_OK)
        return fail_archive(reader.get(), source, error);
    return read_members(reader.get(), source, contents, error);
}

}  // namespace

bool read_package_contents(const PackageFile& package, const std::string& label, const BlockUse& use,
                           PackageContents* contents, VelkctlError** error) {
    Source source{package, use, ProgressBar(label, package.data_size)};
    bool is_read = read_archive(source, contents, error);
    contents->is_compressed = source.is_compressed;
    while (source.position < package.data_size && next_block(source)) {
    }
    if (is_read && source.error.is_set()) {
        source.error.move_to(error);
        is_read = false;
    }
    return is_read;
}

std::string unpacked_name(const std::string& name) {
    std::string unpacked;
    size_t start = 0;
    while (start < name.size()) {
        const size_t end = std::min(name.find('/', start), name.size());
        const std::string part = name.substr(start, end - start);
        if (!part.empty() && part != ".")
            unpacked += (unpacked.empty() ? "" : "/") + part;
        start = end + 1;
    }
    return unpacked;
}
