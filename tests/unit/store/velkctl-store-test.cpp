#include "store/velkctl-store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

static std::vector<std::string> collect_all(const std::string& directory,
                                            const std::optional<std::string>& sub_path) {
    ErrorSlot error;
    std::vector<std::string> found = collect_paths(
        directory, sub_path, [](const std::string&) { return true; }, error);
    EXPECT_EQ(test::describe(error), "none");
    return found;
}

TEST(Locations, StandInTheOrderOfTheirKinds) {
    struct Row {
        uint32_t kind;
        std::string name, disk, path, subdir;
        bool operator==(const Row&) const = default;
    };
    const auto text = [](const char* value) { return std::string(value ? value : "(none)"); };
    std::vector<Row> rows;
    for (const StoreLocation& row : all_locations())
        rows.push_back({row.kind, text(row.name), text(row.disk), text(row.path), text(row.subdir)});
    EXPECT_EQ(rows, (std::vector<Row>{
                        {0, "internal", "(none)", "/usr/local/packages", "(none)"},
                        {1, "sd_card1", "SD_DISK", "/var/spool/storage/SD_DISK/packages", "lower"},
                        {2, "sd_card2", "SD_DISK2", "/var/spool/storage/SD_DISK2/packages", "lower"},
                        {3, "internal_vlpfs", "(none)", "/opt/packages/_layers", "upper"},
                    }));
}

TEST(Locations, AreFoundByTheirExactNames) {
    ErrorSlot error;
    for (const StoreLocation& row : all_locations())
        EXPECT_EQ(location_by_name(row.name, error), &row);
    EXPECT_EQ(test::describe(error), "none");
}

TEST(Locations, OfAnyOtherNameAreRefused) {
    for (const char* name : {"Internal", "SD_CARD1", "sd_card", "sd_card3", "internal ", "", "SD_DISK"}) {
        ErrorSlot error;
        EXPECT_EQ(location_by_name(name, error), nullptr);
        EXPECT_EQ(test::describe(error),
                  "33 '" + std::string(name) + "' is not a valid installation location");
    }
}

TEST(Locations, TheDefaultIsTheStoreRoot) {
    EXPECT_EQ(default_location(), &all_locations()[STORE_INTERNAL]);
    EXPECT_EQ(store_root(), "/usr/local/packages");
}

TEST(StorePaths, AreFormedFromTheLocation) {
    const auto locations = all_locations();
    EXPECT_EQ(store_path("App", &locations[0]), "/usr/local/packages/App");
    EXPECT_EQ(store_path("App", &locations[1]), "/var/spool/storage/SD_DISK/packages/App");
    EXPECT_EQ(location_link_target("App", &locations[2]), "/var/spool/storage/SD_DISK2/packages/App/lower");
    EXPECT_EQ(location_link_target("App", &locations[3]), "/opt/packages/_layers/App/upper");
    EXPECT_EQ(staging_path("/x/App"), "/x/App.tmp");
}

TEST(StorePathsDeathTest, NeedALocation) {
    EXPECT_DEATH((void)store_path("App", nullptr), "app_name && location && location->path");
    EXPECT_DEATH((void)location_link_target("App", default_location()), "location->subdir");
}

TEST(AppExists, RefusesANullName) {
    ErrorSlot error;
    EXPECT_FALSE(app_exists(nullptr, error));
    EXPECT_EQ(test::describe(error), "10 app_exists: Invalid argument: app_name is NULL");
    EXPECT_FALSE(app_exists(nullptr, nullptr));
}

TEST(CollectPaths, ListsDirectoriesInByteOrder) {
    const test::TemporaryDirectory directory;
    for (const char* name : {"b", "a", "B", "_x", "a-1"})
        ASSERT_EQ(mkdir((directory / name).c_str(), 0755), 0);
    test::write_text(directory / "file", "");
    EXPECT_EQ(collect_all(directory.path(), std::nullopt),
              (std::vector<std::string>{directory / "B", directory / "_x", directory / "a", directory / "a-1",
                                        directory / "b"}));
}

TEST(CollectPaths, OfADirectoryWithoutANameIsAnError) {
    ErrorSlot error;
    const auto everything = [](const std::string&) { return true; };
    EXPECT_EQ(collect_paths("", std::nullopt, everything, error), std::vector<std::string>{});
    EXPECT_EQ(test::describe(error),
              "10 src/store/velkctl-store.cpp:N: Failed to open store path : No such file or directory");
}

TEST(CollectPaths, TakesLinksToDirectoriesForDirectories) {
    const test::TemporaryDirectory store;
    const test::TemporaryDirectory card;
    ASSERT_EQ(symlink(card.path().c_str(), (store / "OnCard").c_str()), 0);
    ASSERT_EQ(symlink("/nowhere/at/all", (store / "dangling").c_str()), 0);
    test::write_text(card / "file", "");
    ASSERT_EQ(symlink((card / "file").c_str(), (store / "to-a-file").c_str()), 0);
    EXPECT_EQ(collect_all(store.path(), std::nullopt), std::vector<std::string>{store / "OnCard"});
}

TEST(CollectPaths, LeavesOutALinkBackToWhereItCameFrom) {
    const test::TemporaryDirectory store;
    ASSERT_EQ(symlink(store.path().c_str(), (store / "loop").c_str()), 0);
    EXPECT_EQ(collect_all(store.path(), std::nullopt), std::vector<std::string>{});
}

TEST(CollectPaths, NeverGoesDeeperThanOneLevel) {
    const test::TemporaryDirectory store;
    test::shell("mkdir -p " + store.path() + "/a/b/c");
    EXPECT_EQ(collect_all(store.path(), std::nullopt), std::vector<std::string>{store / "a"});
}

TEST(CollectPaths, AppendsTheSubPathAndAsksTheFilterForIt) {
    const test::TemporaryDirectory store;
    test::shell("mkdir -p " + store.path() + "/a/upper " + store.path() + "/b " + store.path() + "/c/upper");
    EXPECT_EQ(collect_all(store.path(), "upper"),
              (std::vector<std::string>{store / "a/upper", store / "b/upper", store / "c/upper"}));
    ErrorSlot error;
    const auto exists = [](const std::string& path) { return test::name_exists(path); };
    EXPECT_EQ(collect_paths(store.path(), "upper", exists, error),
              (std::vector<std::string>{store / "a/upper", store / "c/upper"}));
    EXPECT_EQ(test::describe(error), "none");
}

TEST(CollectPaths, FindsNothingInAMissingOrEmptyDirectory) {
    const test::TemporaryDirectory directory;
    EXPECT_EQ(collect_all(directory.path(), std::nullopt), std::vector<std::string>{});
    EXPECT_EQ(collect_all(directory / "missing", std::nullopt), std::vector<std::string>{});
}

TEST(CollectPaths, ReportsWhatIsNoReadableDirectory) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "file", "");
    ErrorSlot error;
    const auto all = [](const std::string&) { return true; };
    EXPECT_EQ(collect_paths(directory / "file/below", std::nullopt, all, error), std::vector<std::string>{});
    EXPECT_EQ(test::describe(error),
              "10 src/store/velkctl-store.cpp:N: Failed to read store path directory " +
                  directory / "file/below" + ": Not a directory");
}

TEST(CollectPaths, IsNotMisledByWhatAFilterLeavesInErrno) {
    const test::TemporaryDirectory store;
    test::shell("mkdir " + store.path() + "/a " + store.path() + "/b");
    ErrorSlot error;
    const auto failing = [](const std::string&) {
        errno = EACCES;
        return true;
    };
    EXPECT_EQ(collect_paths(store.path(), std::nullopt, failing, error).size(), 2U);
    EXPECT_EQ(test::describe(error), "none");
}

TEST(ClearStaging, RemovesATreeAFileOrALinkAndNothingBehindTheLink) {
    const test::TemporaryDirectory directory;
    test::shell("cd " + directory.path() +
                " && mkdir -p tree/below kept && echo x >tree/below/x && echo x >file" +
                " && echo x >kept/x && ln -s kept link");
    for (const char* name : {"tree", "file", "link", "absent"})
        clear_staging(directory / name);
    EXPECT_EQ(test::tree_of(directory.path()), (std::vector<std::string>{"kept", "kept/x"}));
}

TEST(Filters, TellTheTwoPackageFormsApart) {
    SKIP_UNLESS_ROOT();
    const test::TemporaryDirectory store;
    test::shell("cd " + store.path() + " && mkdir new old none");
    test::write_text(store / "new/manifest.json", "{}", 0444);
    test::write_text(store / "new/package.conf", "", 0444);
    test::write_text(store / "old/package.conf", "", 0444);
    EXPECT_TRUE(has_manifest(store / "new"));
    EXPECT_FALSE(is_legacy_app(store / "new"));
    EXPECT_FALSE(has_manifest(store / "old"));
    EXPECT_TRUE(is_legacy_app(store / "old"));
    EXPECT_FALSE(has_manifest(store / "none"));
    EXPECT_FALSE(is_legacy_app(store / "none"));
    chmod((store / "new/manifest.json").c_str(), 0644);
    EXPECT_FALSE(has_manifest(store / "new"));
    EXPECT_TRUE(is_legacy_app(store / "new"));
}
