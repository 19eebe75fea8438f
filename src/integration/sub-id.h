#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/**
 * Where the range of `uid` begins or is to begin, by the text of a sub-ID file: at its own present range,
 * which has more than one number, else behind the last range of all users.
 *
 * @param error  code 10 for a line with numbers out of range, or with a range larger than the step between
 * ranges
 */
[[nodiscard]] std::optional<int32_t> find_sub_id_start(const std::string& text, uid_t uid,
                                                       VelkctlError** error);

/** A sub-ID file's text without the lines of one uid. */
struct RemainingSubIds {
    std::string text;
    bool removed;  ///< whether there was a line of the uid
};

/**
 * Leave the uid's lines out. What remains is cut at 1024 bytes, and a last line without a line end is left
 * out: this is how the device's other tools know the files.
 */
[[nodiscard]] RemainingSubIds without_sub_ids(const std::string& text, uid_t uid);

/** The line that gives the uid its range from `start` on. */
[[nodiscard]] std::string sub_uid_text(uid_t uid, int32_t start);
/** A line for each secondary group other than the primary one, then the range. */
[[nodiscard]] std::string sub_gid_text(uid_t uid, gid_t primary_gid, const std::vector<gid_t>& gids,
                                       int32_t start);

/** The two files that hold the ranges. */
struct SubIdFiles {
    std::string uids;
    std::string gids;
};
/** Those of the device. */
[[nodiscard]] const SubIdFiles& device_sub_id_files();

/**
 * Give the user a range in both files, its present one when it has one.
 *
 * @param group   the user's primary group
 * @param groups  its secondary groups, mapped into its containers
 * @param error   code 10; lines may then be missing, never wrong
 */
[[nodiscard]] bool allocate_sub_ids(const SubIdFiles& files, const std::string& user,
                                    const std::string& group, const std::vector<std::string>& groups,
                                    VelkctlError** error);

/** Remove the lines of the installed application's user from both files; code 10. */
[[nodiscard]] bool teardown_sub_ids(const SubIdFiles& files, const std::string& app, VelkctlError** error);

/** Remove the lines of a uid from one file, which is written only when there are some; code 10. */
[[nodiscard]] bool remove_sub_ids(const std::string& path, uid_t uid, VelkctlError** error);
