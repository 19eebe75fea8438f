#pragma once

#include <dirent.h>
#include <gio/gio.h>
#include <jansson.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

/*
 * Owners of what the libraries hand out: who holds one of these owns the thing and releases it.
 */

template <auto Release>
struct ReleaseWith {
    template <typename T>
    void operator()(T* pointer) const {
        Release(pointer);
    }
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// jansson's own function is static inline: as a template argument it would make the type local to one source
// file.
struct ReleaseJson {
    void operator()(json_t* value) const { json_decref(value); }
};

using JsonPtr = std::unique_ptr<json_t, ReleaseJson>;
using KeyFilePtr = std::unique_ptr<GKeyFile, ReleaseWith<g_key_file_unref>>;
using VariantPtr = std::unique_ptr<GVariant, ReleaseWith<g_variant_unref>>;
using GErrorPtr = std::unique_ptr<GError, ReleaseWith<g_error_free>>;
using GStringPtr = std::unique_ptr<char, ReleaseWith<g_free>>;
using GStringVectorPtr = std::unique_ptr<char*, ReleaseWith<g_strfreev>>;
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;
using DirectoryPtr = std::unique_ptr<DIR, ReleaseWith<closedir>>;

/** A reference of one's own on a borrowed JSON value. */
inline JsonPtr json_share(json_t* borrowed) { return JsonPtr(json_incref(borrowed)); }

/** An open file descriptor, closed at the end of its scope; -1 is none. */
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
    }

  private:
    int fd_ = -1;
};

/** Collects the GError of a library call: pass `out()`, then ask `message()`. */
class GErrorSlot {
  public:
    GErrorSlot() = default;
    GErrorSlot(const GErrorSlot&) = delete;
    GErrorSlot& operator=(const GErrorSlot&) = delete;
    ~GErrorSlot() { g_clear_error(&error_); }

    GError** out() { return &error_; }
    [[nodiscard]] GError* get() const { return error_; }
    [[nodiscard]] const char* message() const { return error_ ? error_->message : ""; }

  private:
    GError* error_ = nullptr;
};
