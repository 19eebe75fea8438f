#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/*
 * The verification state file: one JSON object per application that tells that its package passed
 * verification, and with which signature.
 */

/** The file of the application. */
[[nodiscard]] std::string vsf_path(const std::string& app);

/** The text of a verification state file with state "confirmed"; nothing when the signature is no UTF-8 text.
 */
[[nodiscard]] std::optional<std::string> vsf_text(const std::string& signature);

/** The "state" in the text of a verification state file; code 10 naming the application when there is none.
 */
[[nodiscard]] std::optional<std::string> vsf_state_in_text(const std::string& app, const std::string& text,
                                                           VelkctlError** error);

/**
 * Write the application's file, or replace it.
 *
 * @param signature  text of the detached signature, empty for a package that the image ships verified
 * @param error      required (asserted); code 10 for a bad application name, or "Failed to write required
 * fields in VSF for application %s"; an old file is then untouched
 */
[[nodiscard]] bool create_vsf(const std::string& app, const std::string& signature, VelkctlError** error);

/** vsf_text, whose absence is code 10 "Failed to write required fields in VSF for application %s". */
[[nodiscard]] std::optional<std::string> require_vsf_text(const std::string& app,
                                                          const std::string& signature, VelkctlError** error);

/** Write the application's file with that text, or replace it; the same failure, an old file is then
 * untouched. */
[[nodiscard]] bool write_vsf(const std::string& app, const std::string& text, VelkctlError** error);

/** Whether the application has a file. */
[[nodiscard]] bool vsf_exists(const std::string& app);

/** Delete the file; an absent one counts as deleted. Code 10 "Failed removing %s: %s". */
[[nodiscard]] bool remove_vsf(const std::string& app, VelkctlError** error);

/** Delete the file of an application whose package is unsigned, with a warning when there is one; as
 * remove_vsf. */
[[nodiscard]] bool remove_vsf_of_unsigned(const std::string& app, VelkctlError** error);

/** The "state" of the application, empty when it has no file; nothing with code 10 when the file is broken.
 */
[[nodiscard]] std::optional<std::string> read_vsf_state(const std::string& app, VelkctlError** error);

/** Whether the file says exactly "confirmed". A broken file is a warning and not confirmed. */
[[nodiscard]] bool vsf_is_confirmed(const std::string& app);
