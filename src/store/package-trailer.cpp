#include "store/package-trailer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "system/archive.h"
#include "system/file.h"

static constexpr int kMagicPlace = -8;
static constexpr int kVersionPlace = -12;
static constexpr int kSignatureSizePlace = -16;
static constexpr uint32_t kBlock = 4096;
// Blocks are what messages count; the system is asked for more at a time.
static constexpr size_t kStreamBuffer = 128 << 10;
static constexpr int kEndingLength = 4;

static bool set_signature_error(VelkctlError** error, const char* text) {
    velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "%s: %s", text, system_error_text().c_str());
    return false;
}

/** Read a big-endian number of `width` bytes that begins `place` bytes from the end; `what` names it in
 * messages. */
static bool read_number(std::FILE* package, int place, int width, const char* what, uint64_t* number,
                        VelkctlError** error) {
    if (fseeko(package, place, SEEK_END) != 0) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Failed seeking %dB from EOF: %s", place,
                          system_error_text().c_str());
        return false;
    }
    unsigned char bytes[sizeof *number];
    errno = 0;
    if (std::fread(bytes, 1, static_cast<size_t>(width), package) != static_cast<size_t>(width)) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Failed reading %dB for %s: %s", width, what,
                          system_error_text().c_str());
        return false;
    }
    *number = 0;
    for (int i = 0; i < width; i++)
        *number = *number << 8 | bytes[i];
    return true;
}

static bool read_magic(std::FILE* package, uint64_t* magic, VelkctlError** error) {
    return read_number(package, kMagicPlace, sizeof *magic, "the magic", magic, error);
}

bool read_package_kind(std::FILE* package, const std::string& path, bool* is_signed, VelkctlError** error) {
    if (fseeko(package, 0, SEEK_END) != 0) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "fseek(SEEK_END) failed: %s",
                          system_error_text().c_str());
        return false;
    }
    const off_t size = ftello(package);
    if (size < 0) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "ftell() failed: %s",
                          system_error_text().c_str());
        return false;
    }
    if (size < static_cast<off_t>(PACKAGE_TRAILER_SIZE)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Package size %ju for %s is too small",
                          static_cast<uintmax_t>(size), path.c_str());
        return false;
    }
    uint64_t magic = 0;
    if (!read_magic(package, &magic, error))
        return false;
    *is_signed = magic == PACKAGE_MAGIC;
    return true;
}

/** The size of the whole package, for the checks of the trailer; -1 on failure. */
static off_t package_size(std::FILE* package, VelkctlError** error) {
    if (fseeko(package, 0, SEEK_END) != 0) {
        set_signature_error(error, "Failed seeking EOF");
        return -1;
    }
    const off_t size = ftello(package);
    if (size < 0)
        set_signature_error(error, "Failed telling EOF");
    return size;
}

bool check_package_trailer(const PackageTrailer& trailer, off_t size, VelkctlError** error) {
    if (trailer.signature_size == 0) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Invalid package, missing signature");
        return false;
    }
    if (trailer.magic != PACKAGE_MAGIC || trailer.version != PACKAGE_VERSION) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Invalid signature%s%s",
                          trailer.magic != PACKAGE_MAGIC ? ", incorrect magic" : "",
                          trailer.version != PACKAGE_VERSION ? ", incorrect package version" : "");
        return false;
    }
    const off_t room = size - static_cast<off_t>(PACKAGE_TRAILER_SIZE);
    if (static_cast<off_t>(trailer.signature_size) <= room)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Signature size outside file boundary: %uB > %juB",
                      trailer.signature_size, static_cast<uintmax_t>(room));
    return false;
}

bool read_package_trailer(std::FILE* package, PackageTrailer* trailer, VelkctlError** error) {
    uint64_t version = 0;
    uint64_t signature_size = 0;
    uint64_t magic = 0;
    // The magic is read again: the file may have been exchanged since its kind was read.
    if (!read_number(package, kVersionPlace, sizeof trailer->version, "version", &version, error) ||
        !read_number(package, kSignatureSizePlace, sizeof trailer->signature_size, "signature size",
                     &signature_size, error) ||
        !read_magic(package, &magic, error))
        return false;
    const off_t size = package_size(package, error);
    if (size < 0)
        return false;
    const PackageTrailer found = {static_cast<uint32_t>(signature_size), static_cast<uint32_t>(version),
                                  magic};
    if (!check_package_trailer(found, size, error))
        return false;
    *trailer = found;
    return true;
}

PackageTrailer decode_package_trailer(std::string_view bytes) {
    const auto number = [bytes](size_t place, size_t width) {
        uint64_t value = 0;
        for (const char byte : bytes.substr(place, width))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    };
    return {static_cast<uint32_t>(number(0, 4)), static_cast<uint32_t>(number(4, 4)), number(8, 8)};
}

std::string encode_package_trailer(uint32_t signature_size) {
    std::string bytes;
    const auto append = [&bytes](uint64_t value, int width) {
        for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift & 0xFF);
    };
    append(signature_size, 4);
    append(PACKAGE_VERSION, 4);
    append(PACKAGE_MAGIC, 8);
    return bytes;
}

/** A new file and what it is called. */
struct NewFile {
    std::string name;
    std::vector<char> buffer;  ///< outlives the stream that writes through it
    FilePtr stream;
};

/** Make a new file from the template and open it; `operation` begins the message of a failure. */
static bool make_file(const std::string& name_template, const char* operation, NewFile* file,
                      VelkctlError** error) {
    file->name = name_template;
    const int fd = mkostemps(file->name.data(), kEndingLength, O_CLOEXEC);
    if (fd >= 0)
        file->stream.reset(fdopen(fd, "wb"));
    if (!file->stream) {
        SET_GENERAL_ERROR(error, "%s: %s: %s", operation, name_template.c_str(), system_error_text().c_str());
        if (fd >= 0) {
            close(fd);
            unlink(file->name.c_str());
        }
        return false;
    }
    file->buffer.resize(kStreamBuffer);
    std::setvbuf(file->stream.get(), file->buffer.data(), _IOFBF, file->buffer.size());
    return true;
}

/** Copy the next `length` bytes of the package; false with `*read_failed` telling which side failed. */
static bool copy_block(std::FILE* package, std::FILE* file, size_t length, bool* read_failed) {
    char block[kBlock];
    errno = 0;
    *read_failed = std::fread(block, 1, length, package) != length;
    return !*read_failed && std::fwrite(block, 1, length, file) == length;
}

bool copy_package_signature(std::FILE* package, const PackageTrailer& trailer,
                            const std::string& name_template, std::string* made, VelkctlError** error) {
    // What is refused for its size anyway must not fill the disk first.
    if (trailer.signature_size > PACKAGE_SIGNATURE_LIMIT) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Signature size too large: %uB > %dB",
                          trailer.signature_size, static_cast<int>(PACKAGE_SIGNATURE_LIMIT));
        return false;
    }
    const uint64_t from_end = uint64_t{trailer.signature_size} + PACKAGE_TRAILER_SIZE;
    if (fseeko(package, -static_cast<off_t>(from_end), SEEK_END) != 0) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Failed seeking %juB from EOF: %s",
                          uintmax_t{from_end}, system_error_text().c_str());
        return false;
    }
    NewFile file;
    if (!make_file(name_template, "Failed opening file", &file, error))
        return false;
    *made = file.name;
    bool read_failed = false;
    bool copied = true;
    for (uint32_t left = trailer.signature_size; copied && left > 0; left -= std::min(left, kBlock))
        copied = copy_block(package, file.stream.get(), std::min(left, kBlock), &read_failed);
    if (copied && std::fflush(file.stream.get()) == 0)
        return true;
    if (read_failed)
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Failed reading %uB for signature: %s",
                          trailer.signature_size, system_error_text().c_str());
    else
        SET_GENERAL_ERROR(error, "Failed writing to file: %s: %s", file.name.c_str(),
                          system_error_text().c_str());
    return false;
}

/** Go to the end of the data part, learn its length from the place, and return to its start. */
static bool find_data_part(std::FILE* package, const PackageTrailer& trailer, uint32_t* length,
                           VelkctlError** error) {
    const off_t behind = off_t{PACKAGE_TRAILER_SIZE} + trailer.signature_size;
    if (fseeko(package, 0, SEEK_END) != 0)
        return set_signature_error(error, "Failed seek EOF");
    const off_t data_size = ftello(package) - behind;
    // What does not fit a length counts as negative.
    if (data_size < 0 || data_size > PACKAGE_DATA_LIMIT) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE,
                          "Can not read past beginning of file, signature size is too large");
        return false;
    }
    if (fseeko(package, -behind, SEEK_END) != 0)
        return set_signature_error(error, "Failed to find the end of data part");
    *length = static_cast<uint32_t>(ftello(package));
    std::rewind(package);
    return true;
}

static void set_block_error(VelkctlError** error, bool read_failed, uint32_t length,
                            const std::string& path) {
    const std::string text = system_error_text();
    const char* operation = read_failed ? "reading" : "writing";
    const char* direction = read_failed ? "from" : "to";
    if (length == kBlock)
        SET_GENERAL_ERROR(error, "Failed %s %uB %s file: %s: %s", operation, length, direction, path.c_str(),
                          text.c_str());
    else
        SET_GENERAL_ERROR(error, "Failed %s %ldB %s file: %s: %s", operation, static_cast<long>(length),
                          direction, path.c_str(), text.c_str());
}

/** Copy `length` bytes in blocks, the last one shorter. */
static bool copy_blocks(std::FILE* package, const std::string& path, const NewFile& file, uint32_t length,
                        VelkctlError** error) {
    uint32_t block = std::min(length, kBlock);
    for (uint32_t count = 0; count < length; count += block) {
        block = std::min(length - count, kBlock);
        bool read_failed = false;
        if (!copy_block(package, file.stream.get(), block, &read_failed)) {
            set_block_error(error, read_failed, block, read_failed ? path : file.name);
            return false;
        }
    }
    if (std::fflush(file.stream.get()) == 0)
        return true;
    set_block_error(error, false, block, file.name);
    return false;
}

bool copy_package_data(std::FILE* package, const PackageTrailer& trailer, const std::string& path,
                       const std::string& name_template, std::string* made, VelkctlError** error) {
    uint32_t length = 0;
    if (!find_data_part(package, trailer, &length, error))
        return false;
    NewFile file;
    if (!make_file(name_template, "Failed creating file", &file, error))
        return false;
    if (copy_blocks(package, path, file, length, error) &&
        set_mode(file.name, PACKAGE_DATA_MODE | S_ISVTX, error)) {
        *made = file.name;
        return true;
    }
    unlink(file.name.c_str());
    return false;
}

void keep_package_data(const std::string& path) {
    ErrorSlot failure;
    if (!set_mode(path, PACKAGE_DATA_MODE, failure))
        warn_and_clear_error(failure, nullptr);
}
