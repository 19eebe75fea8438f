#include "manifest/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "manifest/samples.h"
#include "support.h"

using test::describe;
using test::TemporaryDirectory;
using test::write_text;

static const char kSmall[] = R"({"velkPackageConf": {"setup": {"appName": "Small"}}})";

/** "loaded", or the error with the directory's own path as "DIR". */
static std::string load(const std::string& directory) {
    ErrorSlot error;
    const JsonPtr manifest = load_manifest(directory, error);
    EXPECT_NE(manifest != nullptr, error.is_set());
    std::string text = manifest ? "loaded" : describe(error);
    for (size_t at = 0; (at = text.find(directory)) != std::string::npos;)
        text.replace(at, directory.size(), "DIR");
    return text;
}

TEST(Manifest, IsLoadedWhenItIsRootsAndReadOnly) {
    SKIP_UNLESS_ROOT();
    const TemporaryDirectory directory;
    write_text(directory / "manifest.json", kSmall, 0444);
    EXPECT_EQ(load(directory.path()), "loaded");
    ErrorSlot error;
    EXPECT_EQ(get_safe_manifest_path(directory.path().c_str(), error), directory / "manifest.json");
}

TEST(Manifest, AMissingManifestIsAnInvalidOne) {
    const TemporaryDirectory directory;
    EXPECT_EQ(load(directory.path()), "29 src/system/file.cpp:N: Path not found: DIR/manifest.json");
}

TEST(Manifest, ALinkIsRefusedWhateverItPointsTo) {
    SKIP_UNLESS_ROOT();
    const TemporaryDirectory directory;
    write_text(directory / "real.json", kSmall, 0444);
    ASSERT_EQ(symlink("real.json", (directory / "manifest.json").c_str()), 0);
    EXPECT_EQ(load(directory.path()), "29 Manifest must not be a symbolic link: DIR/manifest.json");
    ASSERT_EQ(unlink((directory / "real.json").c_str()), 0);
    EXPECT_EQ(load(directory.path()), "29 src/system/file.cpp:N: Path not found: DIR/manifest.json");
}

TEST(Manifest, AnotherOwnerOrGroupIsRefused) {
    SKIP_UNLESS_ROOT();
    const TemporaryDirectory directory;
    const std::string path = directory / "manifest.json";
    write_text(path, kSmall, 0444);
    ASSERT_EQ(chown(path.c_str(), 0, 4711), 0);
    EXPECT_EQ(load(directory.path()), "29 File DIR/manifest.json has improper ownership: 0:4711");
    ASSERT_EQ(chown(path.c_str(), 4711, 0), 0);
    EXPECT_EQ(load(directory.path()), "29 File DIR/manifest.json has improper ownership: 4711:0");
}

TEST(Manifest, AnyOtherModeIsRefused) {
    SKIP_UNLESS_ROOT();
    const TemporaryDirectory directory;
    write_text(directory / "manifest.json", kSmall, 0644);
    EXPECT_EQ(load(directory.path()),
              "29 src/system/file.cpp:N: File DIR/manifest.json has improper permissions: 0644");
    ASSERT_EQ(chmod((directory / "manifest.json").c_str(), 0440), 0);
    EXPECT_EQ(load(directory.path()),
              "29 src/system/file.cpp:N: File DIR/manifest.json has improper permissions: 0440");
}

TEST(Manifest, ANullDirectoryIsRefused) {
    ErrorSlot error;
    EXPECT_EQ(get_safe_manifest_path(nullptr, error), std::nullopt);
    EXPECT_EQ(describe(error), "10 get_safe_manifest_path: Invalid argument: path is NULL");
}

TEST(Manifest, WhatIsNotJsonIsRefusedWithTheParsersText) {
    SKIP_UNLESS_ROOT();
    const std::pair<std::string, const char*> texts[] = {
        {"", "29 JSON error: '[' or '{' expected near end of file"},
        {"7", "29 JSON error: '[' or '{' expected near '7'"},
        {"{", "29 JSON error: string or '}' expected near end of file"},
        {"{\"a\": \"\xff\"}", "29 JSON error: unable to decode byte 0xff near '\"'"},
        {R"({"a": "\u0000"})",
         "29 JSON error: \\u0000 is not allowed without JSON_ALLOW_NUL near '\"\\u0000\"'"},
        {"{} x", "29 JSON error: end of file expected near 'x'"},
        {std::string(100'000, '['), "29 JSON error: maximum parsing depth reached near '['"},
    };
    for (const auto& [text, expected] : texts) {
        const TemporaryDirectory directory;
        write_text(directory / "manifest.json", text, 0444);
        EXPECT_EQ(load(directory.path()), expected) << text.substr(0, 20);
    }
}

TEST(Manifest, ADirectoryInItsPlaceIsAnUnreadableManifest) {
    SKIP_UNLESS_ROOT();
    const TemporaryDirectory directory;
    ASSERT_EQ(mkdir((directory / "manifest.json").c_str(), 0755), 0);
    ASSERT_EQ(chmod((directory / "manifest.json").c_str(), 0444), 0);
    EXPECT_THAT(load(directory.path()), testing::StartsWith("29 JSON error: "));
}

TEST(Manifest, IsReadFromAPackage) {
    const TemporaryDirectory directory;
    write_text(directory / "manifest.json", kSmall);
    test::shell("tar -C '" + directory.path() + "' -cf '" + directory.path() + "/App.vlp' ./manifest.json");
    ErrorSlot error;
    const JsonPtr manifest = load_package_manifest(directory / "App.vlp", error);
    EXPECT_EQ(manifest_app_name(manifest.get(), error), "Small") << describe(error);
}

TEST(Manifest, AMissingPackageAndAnInvalidManifestInOneAreToldApart) {
    const TemporaryDirectory directory;
    ErrorSlot missing;
    EXPECT_FALSE(load_package_manifest(directory / "App.vlp", missing));
    EXPECT_EQ(describe(missing), "10 File does not exist: " + (directory / "App.vlp"));
    write_text(directory / "manifest.json", "{");
    test::shell("tar -C '" + directory.path() + "' -cf '" + directory.path() + "/App.vlp' manifest.json");
    ErrorSlot invalid;
    EXPECT_FALSE(load_package_manifest(directory / "App.vlp", invalid));
    EXPECT_EQ(describe(invalid), "29 Invalid manifest: string or '}' expected near end of file");
}

TEST(Manifest, APathNamesTheFirstMissingKey) {
    const JsonPtr root = test::json_of(R"({"a": {"b": {"c": 1}}, "s": "text"})");
    ErrorSlot error;
    EXPECT_EQ(json_integer_value(manifest_object(root.get(), error, {"a", "b", "c"})), 1);
    EXPECT_EQ(manifest_object(root.get(), error, {"a", "x", "c"}), nullptr);
    EXPECT_EQ(describe(error), "29 Could not read x from manifest");
    ErrorSlot through_text;
    EXPECT_EQ(manifest_object(root.get(), through_text, {"s", "y"}), nullptr);
    EXPECT_EQ(describe(through_text), "29 Could not read y from manifest");
    EXPECT_EQ(manifest_object(root.get(), nullptr, {"z"}), nullptr);
}

TEST(Manifest, AStringIsAStringAndNothingElse) {
    const JsonPtr root = test::json_of(R"({"s": "text", "n": 5, "z": null})");
    ErrorSlot error;
    EXPECT_EQ(manifest_string(root.get(), error, {"s"}), "text");
    EXPECT_FALSE(error.is_set());
    for (const char* key : {"n", "z"}) {
        ErrorSlot refused;
        EXPECT_EQ(manifest_string(root.get(), refused, {key}), std::nullopt);
        EXPECT_EQ(describe(refused), "29 Could not read from manifest - value is not string");
    }
    ErrorSlot missing;
    EXPECT_EQ(manifest_string(root.get(), missing, {"x"}), std::nullopt);
    EXPECT_EQ(describe(missing), "29 Could not read x from manifest");
    EXPECT_EQ(manifest_string(root.get(), nullptr, {"x"}), std::nullopt);
}

TEST(Manifest, AnOptionalStringMayBeAbsentButNotOfAnotherType) {
    const JsonPtr root = test::json_of(R"({"s": "text", "n": 5})");
    std::optional<std::string> value = "before";
    ErrorSlot error;
    EXPECT_TRUE(manifest_optional_string(root.get(), &value, error, {"x"}));
    EXPECT_EQ(value, "before");
    EXPECT_FALSE(manifest_optional_string(root.get(), &value, error, {"n"}));
    EXPECT_EQ(value, "before");
    EXPECT_EQ(describe(error), "29 Could not read from manifest - value is not string");
    EXPECT_TRUE(manifest_optional_string(root.get(), &value, nullptr, {"s"}));
    EXPECT_EQ(value, "text");
}

TEST(Manifest, AMissingBooleanIsAFailureOnlyForWhoPassesNoSlot) {
    const JsonPtr root = test::json_of(R"({"yes": true, "no": false, "text": "true"})");
    bool value = true;
    ErrorSlot error;
    EXPECT_TRUE(manifest_boolean(root.get(), &value, error, {"missing"}));
    EXPECT_TRUE(value);
    EXPECT_FALSE(error.is_set());
    EXPECT_FALSE(manifest_boolean(root.get(), &value, nullptr, {"missing"}));
    EXPECT_TRUE(value);
    EXPECT_TRUE(manifest_boolean(root.get(), &value, nullptr, {"no"}));
    EXPECT_FALSE(value);
    EXPECT_TRUE(manifest_boolean(root.get(), &value, error, {"yes"}));
    EXPECT_TRUE(value);
    EXPECT_FALSE(manifest_boolean(root.get(), &value, error, {"text"}));
    EXPECT_TRUE(value);
    EXPECT_EQ(describe(error), "29 Could not read from manifest - value is not boolean");
}

TEST(Manifest, AListOfStringsNamesItsKeyWhenItIsNone) {
    const JsonPtr root = test::json_of(R"({"a": {"l": ["x", "y"], "o": {}, "m": ["x", 5]}})");
    ErrorSlot error;
    EXPECT_EQ(manifest_strings(root.get(), error, {"a", "l"}), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(manifest_strings(root.get(), error, {"a", "missing"}), std::vector<std::string>());
    EXPECT_FALSE(error.is_set());
    EXPECT_EQ(manifest_strings(root.get(), error, {"a", "o"}), std::nullopt);
    EXPECT_EQ(describe(error), "29 o in manifest is not an array");
    error.clear();
    EXPECT_EQ(manifest_strings(root.get(), error, {"a", "m"}), std::nullopt);
    EXPECT_EQ(describe(error), "29 m in manifest does not contain strings");
}

TEST(Manifest, SingleValuesOfSetupAreReadByName) {
    const JsonPtr manifest = test::valid_manifest();
    ErrorSlot error;
    int32_t app_id = 0;
    EXPECT_EQ(manifest_app_name(manifest.get(), error), "MyApp");
    EXPECT_EQ(manifest_vendor_id(manifest.get(), error), "acme");
    EXPECT_EQ(manifest_version(manifest.get(), error), "1.2.3-beta.1+exp.sha");
    EXPECT_TRUE(manifest_app_id(manifest.get(), &app_id, error));
    EXPECT_EQ(app_id, 4711);
    EXPECT_TRUE(manifest_app_id(test::small_manifest().get(), &app_id, error));
    EXPECT_EQ(app_id, -1);
    EXPECT_FALSE(error.is_set());
}
