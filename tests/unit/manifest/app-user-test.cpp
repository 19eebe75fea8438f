#include "manifest/app-user.h"

#include <gtest/gtest.h>

#include "manifest/samples.h"
#include "support.h"

using test::change;
using test::describe;

TEST(AppUser, ADynamicUserIsNamedAfterTheApplicationInLowerCase) {
    EXPECT_EQ(dynamic_user_name("MyApp"), "velk-myapp");
    EXPECT_EQ(dynamic_user_name("Foo_Bar-9"), "velk-foo_bar-9");
    EXPECT_EQ(dynamic_user_name("\xc3\x84"), "velk-\xc3\x84");
}

TEST(AppUser, IsDynamicWithoutAUserNameWhateverElseTheSectionHolds) {
    for (const char* user : {"{}", R"({"group": "sdk"})", "5", "null"}) {
        const JsonPtr manifest = test::manifest_with("velkPackageConf.setup.user", user);
        bool is_dynamic = false;
        ErrorSlot error;
        EXPECT_EQ(get_manifest_app_user("MyApp", manifest.get(), &is_dynamic, error), "velk-myapp") << user;
        EXPECT_TRUE(is_dynamic) << user;
    }
}

TEST(AppUser, IsTheNamedOneWhenItIsTheOnlyUserDescription) {
    const JsonPtr manifest = test::manifest_with("velkPackageConf.setup.user.username", R"("sdk")");
    bool is_dynamic = true;
    ErrorSlot error;
    EXPECT_EQ(get_manifest_app_user("MyApp", manifest.get(), &is_dynamic, error), std::nullopt);
    EXPECT_EQ(describe(error), "29 Manifest contains both application specific user and legacy user");
    EXPECT_TRUE(is_dynamic);
    error.clear();
    change(manifest.get(), "resources.linux.user", "");
    EXPECT_EQ(get_manifest_app_user("MyApp", manifest.get(), &is_dynamic, error), "sdk");
    EXPECT_FALSE(is_dynamic);
}

TEST(AppUser, AQuestionWithoutAPlaceForTheAnswerIsAFault) {
    EXPECT_DEATH((void)get_manifest_app_user("MyApp", nullptr, nullptr, nullptr), "`is_dynamic' failed");
}

TEST(AppUser, AnInstalledApplicationNeedsAName) {
    ErrorSlot error;
    EXPECT_EQ(application_username(nullptr, error), std::nullopt);
    EXPECT_EQ(describe(error), "10 application_username: Invalid argument: path is NULL");
    ErrorSlot owner_error;
    EXPECT_EQ(application_owner(nullptr, owner_error), std::nullopt);
    EXPECT_EQ(describe(owner_error), "10 application_username: Invalid argument: path is NULL");
}

/** The groups, joined, or the error. */
static std::string groups_with(const char* key, const char* value) {
    const JsonPtr manifest = test::manifest_with(std::string("resources.linux.user.") + key, value);
    ParsedManifest parsed;
    parsed.appName = "MyApp";
    ErrorSlot error;
    const auto groups = get_valid_groups_from_manifest(manifest.get(), &parsed, error);
    if (!groups)
        return describe(error);
    std::string text;
    for (const std::string& group : *groups)
        text += group + " ";
    return text;
}

TEST(AppUser, AllListedGroupsMustBeAllowed) {
    const test::LogCapture log;
    EXPECT_EQ(groups_with("groups", R"(["audio", "root", "shadow"])"),
              "13 MyApp: Secondary Group 'root' is not in Allowlist");
    EXPECT_EQ(log.text(), "MyApp: Secondary Group 'root' is not in Allowlist\n");
}

TEST(AppUser, ConditionalGroupsAreTakenWhenTheyAreAllowedAndThere) {
    // Of these the system knows all but the last, and only audio and video are on the list.
    EXPECT_EQ(groups_with("conditionalGroups", R"(["root", "audio", "video", "zigbee2mqtt"])"),
              "video audio video ");
    EXPECT_EQ(groups_with("conditionalGroups", "[]"), "video ");
    EXPECT_EQ(groups_with("groups", ""), "");
}

TEST(AppUser, MalformedGroupListsAreRefused) {
    EXPECT_EQ(groups_with("groups", R"("video")"), "29 groups in manifest is not an array");
    EXPECT_EQ(groups_with("groups", "[5]"), "29 groups in manifest does not contain strings");
    EXPECT_EQ(groups_with("conditionalGroups", "{}"), "29 conditionalGroups in manifest is not an array");
    EXPECT_EQ(groups_with("conditionalGroups", "[null]"),
              "29 conditionalGroups in manifest does not contain strings");
}

TEST(AppUser, GroupsNeedAManifestAndItsRecord) {
    const JsonPtr manifest = test::valid_manifest();
    const ParsedManifest parsed;
    EXPECT_DEATH((void)get_valid_groups_from_manifest(nullptr, &parsed, nullptr),
                 "manifest && manifest_struct");
    EXPECT_DEATH((void)get_valid_groups_from_manifest(manifest.get(), nullptr, nullptr),
                 "manifest && manifest_struct");
}
