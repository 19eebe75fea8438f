#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "manifest/allowlist.h"
#include "support.h"

/*
 * The names that a firmware carries. Whoever replaces them changes the two counts here.
 */

static constexpr size_t kUsers = 180;
static constexpr size_t kGroups = 232;

/** What amounts to root, gives an operator's rights, or opens other users' secrets. */
static const std::set<std::string_view> kForbidden = {
    "root",
    "sudo",
    "wheel",
    "daemon",
    "bin",
    "sys",
    "disk",
    "kmem",
    "mem",
    "docker",
    "lxd",
    "lxc",
    "incus",
    "podman",
    "libvirt",
    "staff",
    "polkitd",
    "messagebus",
    "admin",
    "adm",
    "operator",
    "viewer",
    "ssh-users",
    "netdev",
    "lpadmin",
    "shadow",
    "tty",
    "tape",
    "sasl",
    "ssl-cert",
    "systemd-journal",
    "tss",
    "mail",
    "backup",
    "crontab",
    "nobody",
    "nogroup",
    "users",
    "www",
    "www-data",
    "utmp",
    "wireshark",
    "vboxusers",
    "systemd-network",
    "systemd-coredump",
    "sambashare",
    "ssh",
    "_ssh",
    "sshd",
    "puppet",
    "munge",
    "keystone",
    "barbican",
    "dip",
};

static bool is_name(std::string_view name) {
    const auto is_letter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    };
    const auto is_rest = [&](char c) { return is_letter(c) || (c >= '0' && c <= '9') || c == '-'; };
    return !name.empty() && name.size() <= 32 && is_letter(name[0]) &&
           std::all_of(name.begin(), name.end(), is_rest);
}

static void check_list(std::span<const std::string_view> names) {
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
    for (const std::string_view name : names) {
        EXPECT_TRUE(is_name(name)) << name;
        EXPECT_FALSE(kForbidden.contains(name)) << name;
    }
}

static bool holds(std::span<const std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(AllowlistData, TheUsersAreWellFormedSortedAndHarmless) {
    EXPECT_EQ(builtin_users().size(), kUsers);
    check_list(builtin_users());
    EXPECT_TRUE(holds(builtin_users(), "sdk"));
}

TEST(AllowlistData, TheGroupsAreWellFormedSortedAndHarmless) {
    EXPECT_EQ(builtin_groups().size(), kGroups);
    check_list(builtin_groups());
    for (const char* name : {"sdk", "video", "audio", "render", "input", "dialout", "gpio", "i2c", "spi"})
        EXPECT_TRUE(holds(builtin_groups(), name)) << name;
}

TEST(AllowlistData, TheListsAreTheFilesInTheSourceTree) {
    const auto text_of = [](std::span<const std::string_view> names) {
        std::string text;
        for (const std::string_view name : names)
            text += std::string(name) + "\n";
        return text;
    };
    EXPECT_EQ(text_of(builtin_users()), test::read_text(TEST_DATA_DIR "/../../data/allowed-users"));
    EXPECT_EQ(text_of(builtin_groups()), test::read_text(TEST_DATA_DIR "/../../data/allowed-groups"));
}
