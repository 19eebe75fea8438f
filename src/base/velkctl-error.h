#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "platform/libvelkctl.h"

#ifdef NDEBUG
#error "Assertions stop programming faults before they harm a device; build without NDEBUG."
#endif

/**
 * Error codes. The code of the error that ends a command is the process's exit status, so these numbers are
 * an interface: the gaps are reserved, and 6 and 7 are statuses of `start` and `stop` that carry no error
 * record.
 */
enum VelkctlErrorCode : int32_t {
    VELKCTL_SUCCESS = 0,
    VELKCTL_ERROR_INVALID_PACKAGE = 1,
    VELKCTL_ERROR_SIGNATURE = 2,
    VELKCTL_ERROR_NO_SPACE = 3,
    VELKCTL_ERROR_NOT_FOUND = 4,
    VELKCTL_ERROR_INCOMPATIBLE = 5,
    VELKCTL_ERROR_GENERAL = 10,
    VELKCTL_ERROR_LOCKED = 12,
    VELKCTL_ERROR_NOT_ALLOWLISTED = 13,
    VELKCTL_ERROR_ALREADY_EXISTS = 14,
    VELKCTL_ERROR_TIMEOUT = 15,
    VELKCTL_ERROR_VENDOR_MISMATCH = 27,
    VELKCTL_ERROR_INVALID_MANIFEST = 29,
    VELKCTL_ERROR_INVALID_LOCATION = 33,
    VELKCTL_ERROR_DEFAULT_LOCATION_ONLY = 34,
    VELKCTL_ERROR_INSTALL_ABORTED = 35,
    VELKCTL_ERROR_NO_DLPU = 36,
    VELKCTL_ERROR_SERIAL_MISMATCH = 51,
    VELKCTL_ERROR_DEVMODE_VENDOR_MISMATCH = 53,
    VELKCTL_ERROR_NO_MATCHING_SCHEMA = 54,
    VELKCTL_ERROR_UNDEFINED = 55,  ///< the bound; exit status of a failure that left no record
};

/**
 * Store a new record in the slot `error`: `code` and the printf-formatted message, cut to 255 characters.
 *
 * A null slot records nothing. A slot that already holds a record is a programming fault: the old and the new
 * error are logged and the process aborts.
 */
void velkctl_error_set(VelkctlError** error, int32_t code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** The same with an argument list, for an empty or null slot only (asserted). A null format is an empty
 * message. */
void velkctl_error_vset(VelkctlError** error, int32_t code, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/** Release the record in the slot, if there is a slot and a record, and empty the slot. */
void velkctl_error_clear(VelkctlError** error);

/**
 * Set a general error (code 10) whose message begins with a place in the source, "%s:%d: ", and goes on with
 * the printf-formatted rest.
 */
void velkctl_error_set_at(VelkctlError** error, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/** The same with the place of the call: SET_GENERAL_ERROR(error, format, ...). */
#define SET_GENERAL_ERROR(error, ...) velkctl_error_set_at((error), __FILE__, __LINE__, __VA_ARGS__)

/**
 * The same as velkctl_error_set, as a failed step's last word: `return fail(error, code, ...)`.
 *
 * @return false
 */
bool fail(VelkctlError** error, int32_t code, const char* format, ...) __attribute__((format(printf, 3, 4)));

/** A general error with the place of the call, likewise: `return FAIL_GENERAL(error, format, ...)`. */
#define FAIL_GENERAL(error, ...) (SET_GENERAL_ERROR((error), __VA_ARGS__), false)

/** Set "FUNCTION: Invalid argument: ARGUMENT is NULL", code 10. */
void set_null_argument_error(VelkctlError** error, const char* function, const char* argument);

/** Set "FUNCTION: Invalid argument: ARGUMENT is not NULL or pointer to NULL", code 10. */
void set_not_null_argument_error(VelkctlError** error, const char* function, const char* argument);

/** The system's text for the error number `number`, by default that of the last failed call. */
std::string system_error_text(int number);
std::string system_error_text();

/**
 * A private error slot, for a step whose failure is replaced, warned about or dropped: passes as an error
 * out-parameter and clears itself at the end of its scope.
 */
class ErrorSlot {
  public:
    ErrorSlot() = default;
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;
    ~ErrorSlot() { clear(); }

    // NOLINTNEXTLINE(google-explicit-constructor): it is used as a slot
    operator VelkctlError**() { return &record_; }
    [[nodiscard]] bool is_set() const { return record_ != nullptr; }
    /** Code of the record, 0 when there is none. */
    [[nodiscard]] int32_t code() const { return record_ ? record_->code : VELKCTL_SUCCESS; }
    /** Message of the record, empty when there is none. Valid until the slot is cleared. */
    [[nodiscard]] const char* message() const { return record_ ? record_->message : ""; }
    [[nodiscard]] VelkctlError* get() const { return record_; }
    void clear() { velkctl_error_clear(&record_); }
    /** Give the record to `error`, which must be null or empty; a null slot drops it. */
    void move_to(VelkctlError** error);

  private:
    VelkctlError* record_ = nullptr;
};
