#include "system/archive.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/descriptors.h"
#include "base/handles.h"
#include "base/interruption.h"
#include "base/paths.h"
#include "system/file.h"
#include "system/subprocess.h"

static constexpr size_t kMemberLimit = 16 << 20;
static constexpr int kTarGarbageBehindData = 2;
static constexpr const char* kTarOptions = "TAR_OPTIONS";
static constexpr std::string_view kGzipMagic = "\x1f\x8b";
static constexpr unsigned kGzipBuffer = 128 << 10;
static constexpr unsigned kGzipBlock = 4096;
/** Of zlib: the largest window, and a gzip header only. */
static constexpr int kGzipOnly = 15 + 16;

/** So many of a file's last bytes, or of its first ones; none of a file that has fewer. */
static std::string bytes_at(const std::string& path, int whence, size_t count) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const off_t from_end = whence == SEEK_END ? -static_cast<off_t>(count) : 0;
    const off_t start = lseek(fd.get(), from_end, whence);
    std::string bytes(count, '\0');
    if (start < 0 || pread(fd.get(), bytes.data(), count, start) != static_cast<ssize_t>(count))
        bytes.clear();
    return bytes;
}

bool has_package_magic(const std::string& path) {
    const std::string tail = bytes_at(path, SEEK_END, sizeof PACKAGE_MAGIC);
    uint64_t magic = 0;
    std::memcpy(&magic, tail.data(), tail.size());
    return GUINT64_FROM_BE(magic) == PACKAGE_MAGIC;
}

// --- gzip ---

static bool is_gzip(const std::string& path) {
    return bytes_at(path, SEEK_SET, kGzipMagic.size()) == kGzipMagic;
}

TarGzip::TarGzip(const std::string& archive, bool pigz_wanted) {
    if (const char* options = g_getenv(kTarOptions))
        old_options_ = options;
    const char* program = pigz_wanted && access(paths::kPigz, X_OK) == 0 ? paths::kPigz : "gzip";
    const std::string options = std::string("--use-compress-program=") + program;
    g_setenv(kTarOptions, is_gzip(archive) ? options.c_str() : "", TRUE);
}

TarGzip::~TarGzip() {
    if (old_options_)
        g_setenv(kTarOptions, old_options_->c_str(), TRUE);
    else
        g_unsetenv(kTarOptions);
}

// --- Members ---

namespace {

struct TarResult {
    int status = -1;  ///< exit status, -1 for a signal or an output over the limit
    std::string output;
};

// Started with an argument vector and no shell: the archive's path is not limited to what a shell argument
// may hold. tar's own words are dropped: they are noise where the next form of the name is tried, or where a
// signature follows.
std::optional<TarResult> run_tar(const std::string& archive, const std::string& member,
                                 VelkctlError** error) {
    GErrorSlot reason;
    const std::optional<StartedProgram> tar =
        start_program({"tar", "-xOf", archive, member}, true, G_SPAWN_STDERR_TO_DEV_NULL, &reason);
    if (!tar) {
        SET_GENERAL_ERROR(error, "Failed spawning a child process: %s", reason.message());
        return std::nullopt;
    }
    TarResult result;
    const bool is_whole = read_all(tar->output.get(), &result.output, kMemberLimit);
    if (!is_whole)
        kill(tar->pid, SIGKILL);
    int status = 0;
    if (!wait_for_child(tar->pid, &status)) {
        SET_GENERAL_ERROR(error, "Failed running \"%s\": %s", "tar", system_error_text().c_str());
        return std::nullopt;
    }
    if (fail_when_child_interrupted(status, error))
        return std::nullopt;
    if (is_whole && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    return result;
}

}  // namespace

std::optional<std::string> read_tar_member(const std::string& archive, const std::string& member,
                                           VelkctlError** error) {
    if (is_directory(archive))
        return read_file(archive + "/" + member, error);
    // A pipe or the like could keep tar waiting for ever, and is gone once it was read.
    ErrorSlot unknown;
    if (path_exists(archive, unknown) && !is_regular_file(archive)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Invalid application package");
        return std::nullopt;
    }
    // In a signed package the signature follows the gzip stream: tar prints the member, then complains about
    // the rest.
    const bool garbage_expected = has_package_magic(archive);
    const TarGzip gzip(archive, garbage_expected);
    // With garbage behind it an empty member looks like none.
    const bool may_be_empty = !(garbage_expected && is_gzip(archive));
    for (const std::string& name : {member, "./" + member}) {
        if (fail_when_interrupted(error))
            return std::nullopt;
        std::optional<TarResult> result = run_tar(archive, name, error);
        if (!result)
            return std::nullopt;
        const bool only_garbage = garbage_expected && result->status == kTarGarbageBehindData;
        const bool is_text = !result->output.empty();
        if ((result->status == 0 && (is_text || may_be_empty)) || (only_garbage && is_text))
            return std::move(result->output);
    }
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Invalid application package");
    return std::nullopt;
}

// --- Sizes ---

uint64_t uncompressed_size(const std::string& path, VelkctlError** error) {
    const std::unique_ptr<gzFile_s, ReleaseWith<gzclose_r>> file(gzopen(path.c_str(), "rbe"));
    if (!file) {
        SET_GENERAL_ERROR(error, "Failed to open gzip archive: %s", system_error_text().c_str());
        return 0;
    }
    gzbuffer(file.get(), kGzipBuffer);
    uint64_t size = 0;
    unsigned char block[kGzipBlock];
    int got = 0;
    while ((got = gzread(file.get(), block, kGzipBlock)) > 0)
        size += static_cast<uint64_t>(got);
    int number = Z_OK;
    const char* text = gzerror(file.get(), &number);
    if (got == 0 && number == Z_OK)
        return size;
    SET_GENERAL_ERROR(error, "Failed to read gzip archive %s: %s", path.c_str(),
                      number == Z_ERRNO ? system_error_text().c_str() : text);
    return 0;
}

std::optional<uint64_t> single_gzip_size(const std::string& path) {
    const FilePtr file(std::fopen(path.c_str(), "re"));
    z_stream stream{};
    if (!file || inflateInit2(&stream, kGzipOnly) != Z_OK)
        return std::nullopt;
    std::vector<unsigned char> packed(kGzipBuffer);
    std::vector<unsigned char> unpacked(kGzipBuffer);
    uint64_t size = 0;
    int result = Z_OK;
    while (result == Z_OK) {
        if (stream.avail_in == 0) {
            stream.next_in = packed.data();
            stream.avail_in = static_cast<unsigned>(std::fread(packed.data(), 1, kGzipBuffer, file.get()));
        }
        stream.next_out = unpacked.data();
        stream.avail_out = kGzipBuffer;
        result = inflate(&stream, Z_NO_FLUSH);
        size += kGzipBuffer - stream.avail_out;
    }
    inflateEnd(&stream);
    const bool is_at_end = stream.avail_in == 0 && std::fgetc(file.get()) == EOF && !std::ferror(file.get());
    return result == Z_STREAM_END && is_at_end ? std::optional(size) : std::nullopt;
}
