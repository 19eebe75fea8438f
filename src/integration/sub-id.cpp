#include "integration/sub-id.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "base/handles.h"
#include "base/paths.h"
#include "manifest/app-user.h"
#include "system/file.h"
#include "system/user-database.h"

namespace {

constexpr int32_t RANGE_SIZE = 65536;
constexpr int32_t FIRST_START = 100000;
constexpr int32_t STEP = 100000;
constexpr int32_t LARGEST_START = 600000000;
constexpr int32_t LARGEST_UNUSABLE_START = 1000;
constexpr size_t KEPT_BYTES = 1024;

using RegexPtr = std::unique_ptr<GRegex, ReleaseWith<g_regex_unref>>;
using MatchPtr = std::unique_ptr<GMatchInfo, ReleaseWith<g_match_info_free>>;

/** A whole text as a number; nothing when it is none or out of the range of its type. */
template <typename Number>
std::optional<Number> parse(std::string_view text) {
    Number value{};
    const auto [end, result] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = result == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(value) : std::nullopt;
}

struct SubIdLine {
    std::string owner;
    int32_t start;
    int32_t count;
};

std::string group_of_match(const GMatchInfo* match, int number) {
    const GStringPtr text(g_match_info_fetch(match, number));
    return text.get();
}

std::optional<SubIdLine> read_line(const GMatchInfo* match, VelkctlError** error) {
    const std::optional<int32_t> start = parse<int32_t>(group_of_match(match, 2));
    const std::optional<int32_t> count = parse<int32_t>(group_of_match(match, 3));
    if (start && count)
        return SubIdLine{group_of_match(match, 1), *start, *count};
    std::string line = group_of_match(match, 0);
    if (line.ends_with('\n'))
        line.pop_back();
    SET_GENERAL_ERROR(error, "Failed to parse sub-id range %s", line.c_str());
    return std::nullopt;
}

bool is_reusable(const SubIdLine& line, uid_t uid) {
    // A count of 1 is one of the user's groups, whatever its number.
    return parse<uid_t>(line.owner) == uid && line.start > LARGEST_UNUSABLE_START && line.count != 1;
}

/** Add lines, which a file that ends within one would otherwise join to it; both would then mean nothing. */
bool append_lines(const std::string& path, const std::string& lines, VelkctlError** error) {
    const std::optional<std::string> text = read_file(path, error);
    const bool is_unfinished = text && !text->empty() && !text->ends_with('\n');
    return text && append_to_file(path, (is_unfinished ? "\n" : "") + lines, error);
}

std::optional<int32_t> common_start(const SubIdFiles& files, uid_t uid, VelkctlError** error) {
    const std::optional<std::string> uids = read_file(files.uids, error);
    const std::optional<std::string> gids = uids ? read_file(files.gids, error) : std::nullopt;
    const std::optional<int32_t> start = gids ? find_sub_id_start(*uids, uid, error) : std::nullopt;
    const std::optional<int32_t> gid_start = start ? find_sub_id_start(*gids, uid, error) : std::nullopt;
    if (!gid_start)
        return std::nullopt;
    if (*start != *gid_start) {
        SET_GENERAL_ERROR(error, "Entries in %s and %s do not match", files.uids.c_str(), files.gids.c_str());
        return std::nullopt;
    }
    if (*start > LARGEST_START) {
        SET_GENERAL_ERROR(error, "Start range in %s will exceed allowed max value", files.uids.c_str());
        return std::nullopt;
    }
    return start;
}

std::optional<std::vector<gid_t>> group_ids(const std::vector<std::string>& groups, VelkctlError** error) {
    std::vector<gid_t> gids;
    for (const std::string& group : groups) {
        gids.push_back(find_group_id(group, error));
        if (gids.back() == static_cast<gid_t>(-1))
            return std::nullopt;
    }
    return gids;
}

}  // namespace

std::optional<int32_t> find_sub_id_start(const std::string& text, uid_t uid, VelkctlError** error) {
    const RegexPtr regex(
        g_regex_new(R"(^(\S+):(\d+):(\d+)\n?$)",
                    static_cast<GRegexCompileFlags>(G_REGEX_MULTILINE | G_REGEX_RAW | G_REGEX_NEWLINE_LF),
                    static_cast<GRegexMatchFlags>(0), nullptr));
    if (!regex) {
        SET_GENERAL_ERROR(error, "Failed compiling regex");
        return std::nullopt;
    }
    GMatchInfo* found = nullptr;
    g_regex_match_full(regex.get(), text.data(), static_cast<gssize>(text.size()), 0,
                       static_cast<GRegexMatchFlags>(0), &found, nullptr);
    const MatchPtr match(found);
    int32_t largest = 0;
    for (; g_match_info_matches(match.get()); g_match_info_next(match.get(), nullptr)) {
        const std::optional<SubIdLine> line = read_line(match.get(), error);
        if (!line)
            return std::nullopt;
        if (is_reusable(*line, uid))
            return line->start;
        if (line->count > STEP) {
            SET_GENERAL_ERROR(error, "Default range offset is smaller than an already used range");
            return std::nullopt;
        }
        largest = std::max(largest, line->start);
    }
    // Saturated, which is beyond the largest start that is allowed.
    return largest > INT32_MAX - STEP ? INT32_MAX : largest == 0 ? FIRST_START : largest + STEP;
}

RemainingSubIds without_sub_ids(const std::string& text, uid_t uid) {
    const std::string own = std::to_string(uid) + ":";
    RemainingSubIds remaining{{}, false};
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        const std::string line = text.substr(begin, end + 1 - begin);
        begin = end + 1;
        if (line.starts_with(own))
            remaining.removed = true;
        else if (line != "\n")
            remaining.text += line;
    }
    remaining.text.resize(std::min(remaining.text.size(), KEPT_BYTES));
    return remaining;
}

std::string sub_uid_text(uid_t uid, int32_t start) {
    return std::to_string(uid) + ":" + std::to_string(start) + ":" + std::to_string(RANGE_SIZE) + "\n";
}

std::string sub_gid_text(uid_t uid, gid_t primary_gid, const std::vector<gid_t>& gids, int32_t start) {
    std::string text;
    for (const gid_t gid : gids)
        if (gid != primary_gid)
            text += std::to_string(uid) + ":" + std::to_string(gid) + ":1\n";
    return text + sub_uid_text(uid, start);
}

const SubIdFiles& device_sub_id_files() {
    static const SubIdFiles files{paths::kSubUid, paths::kSubGid};
    return files;
}

bool allocate_sub_ids(const SubIdFiles& files, const std::string& user, const std::string& group,
                      const std::vector<std::string>& groups, VelkctlError** error) {
    const uid_t uid = find_user_id(user, error);
    if (uid == static_cast<uid_t>(-1))
        return false;
    const gid_t primary_gid = find_group_id(group, error);
    if (primary_gid == static_cast<gid_t>(-1))
        return false;
    const std::optional<int32_t> start = common_start(files, uid, error);
    const std::optional<std::vector<gid_t>> gids = start ? group_ids(groups, error) : std::nullopt;
    return gids && remove_sub_ids(files.uids, uid, error) && remove_sub_ids(files.gids, uid, error) &&
           append_lines(files.uids, sub_uid_text(uid, *start), error) &&
           append_lines(files.gids, sub_gid_text(uid, primary_gid, *gids, *start), error);
}

bool teardown_sub_ids(const SubIdFiles& files, const std::string& app, VelkctlError** error) {
    ErrorSlot unknown;
    if (!path_exists(files.uids, unknown) || !path_exists(files.gids, unknown)) {
        // Only the first file is named, twice: whoever reads the log knows this text.
        SET_GENERAL_ERROR(error, "Failed finding either one or both of %s and %s", files.uids.c_str(),
                          files.uids.c_str());
        return false;
    }
    const std::optional<std::string> user = application_username(app.c_str(), error);
    const uid_t uid = user ? find_user_id(*user, error) : static_cast<uid_t>(-1);
    return uid != static_cast<uid_t>(-1) && remove_sub_ids(files.uids, uid, error) &&
           remove_sub_ids(files.gids, uid, error);
}

bool remove_sub_ids(const std::string& path, uid_t uid, VelkctlError** error) {
    ErrorSlot unreadable;
    const std::optional<std::string> text = read_file(path, unreadable);
    if (!text) {
        SET_GENERAL_ERROR(error, "Failed to remove entries for %d from %s - file could not be read",
                          static_cast<int>(uid), path.c_str());
        return false;
    }
    const RemainingSubIds remaining = without_sub_ids(*text, uid);
    return !remaining.removed || write_file(path, remaining.text, error);
}
