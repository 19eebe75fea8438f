#include "pack/package-file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "pack/pack-error.h"
#include "pack/progress.h"
#include "store/package-trailer.h"
#include "store/velkctl-verify-signature.h"

static constexpr size_t kTarMagicPlace = 257;

/** Read exactly the bytes at that place. */
static bool read_exactly(int fd, uint64_t place, size_t length, std::string* bytes) {
    bytes->resize(length);
    size_t done = 0;
    while (done < length) {
        const ssize_t got = pread(fd, bytes->data() + done, length - done, static_cast<off_t>(place + done));
        if (got == 0)
            errno = ENODATA;
        if (got == 0 || (got < 0 && errno != EINTR))
            return false;
        if (got > 0)
            done += static_cast<size_t>(got);
    }
    return true;
}

static bool measure(PackageFile* package, VelkctlError** error) {
    struct stat status = {};
    if (!package->fd || fstat(package->fd.get(), &status) != 0)
        return fail_with_system_error(error, package->path, "cannot be read");
    if (!S_ISREG(status.st_mode))
        return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, package->path, "is no file");
    package->size = static_cast<uint64_t>(status.st_size);
    return package->size >= PACKAGE_TRAILER_SIZE ||
           fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, package->path, "is too small for a package");
}

// Every byte of the package is read once: a large one may come from a slow disk.
static bool read_end(PackageFile* package, VelkctlError** error) {
    std::string bytes;
    if (!read_exactly(package->fd.get(), package->size - PACKAGE_TRAILER_SIZE, PACKAGE_TRAILER_SIZE, &bytes))
        return fail_with_system_error(error, package->path, "cannot be read");
    const PackageTrailer trailer = decode_package_trailer(bytes);
    package->data_size = package->size;
    if (trailer.magic != PACKAGE_MAGIC)
        return true;
    ErrorSlot broken_rule;
    if (!check_package_trailer(trailer, static_cast<off_t>(package->size), broken_rule))
        return fail_with(error, broken_rule.code(), package->path, broken_rule.message());
    if (trailer.signature_size > SIGNATURE_TEXT_LIMIT)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, package->path, "the signature is too large");
    package->data_size = package->size - PACKAGE_TRAILER_SIZE - trailer.signature_size;
    package->signature.emplace();
    return read_exactly(package->fd.get(), package->data_size, trailer.signature_size,
                        &*package->signature) ||
           fail_with_system_error(error, package->path, "cannot be read");
}

std::optional<PackageFile> open_package_file(const std::string& path, VelkctlError** error) {
    PackageFile package;
    package.path = path;
    // A pipe of that name must not make it wait.
    package.fd = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!measure(&package, error) || !read_end(&package, error))
        return std::nullopt;
    return package;
}

bool read_data_block(const PackageFile& package, uint64_t* position, std::string* buffer,
                     VelkctlError** error) {
    const uint64_t length = std::min<uint64_t>(package.data_size - *position, DATA_BLOCK);
    if (!read_exactly(package.fd.get(), *position, length, buffer))
        return fail_with_system_error(error, package.path, "cannot be read");
    *position += length;
    return true;
}

bool begins_as_gzip(std::string_view start) { return start.starts_with("\x1f\x8b"); }

static bool begins_as_archive(std::string_view start) {
    return begins_as_gzip(start) ||
           (start.size() > kTarMagicPlace && start.substr(kTarMagicPlace).starts_with("ustar"));
}

bool for_each_data_block(const PackageFile& package, const std::string& label,
                         const std::function<bool(std::string_view block)>& use, VelkctlError** error) {
    ProgressBar bar(label, package.data_size);
    std::string block;
    uint64_t position = 0;
    bool is_first = true;
    while (position < package.data_size) {
        if (!read_data_block(package, &position, &block, error))
            return false;
        if (is_first && !begins_as_archive(block))
            return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, package.path,
                             "is neither a tar archive nor a gzip file");
        is_first = false;
        if (!use(block))
            return false;
        bar.advance(block.size());
    }
    return !is_first || fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, package.path, "holds no archive");
}
