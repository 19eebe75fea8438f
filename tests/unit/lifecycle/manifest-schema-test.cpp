#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "lifecycle/schema-process.h"
#include "manifest/manifest-rules.h"
#include "manifest/samples.h"
#include "support.h"

/*
 * The JSON schema of the manifest against the program's own rules.
 */

static const std::string kSchemaPath = TEST_DATA_DIR "/../../data/manifest.schema.json";

static std::string dump(const json_t* json) {
    const std::unique_ptr<char, ReleaseWith<std::free>> text(
        json_dumps(json, JSON_COMPACT | JSON_ENCODE_ANY));
    return text.get();
}

static bool program_accepts(const json_t* manifest) {
    ErrorSlot error;
    return parse_manifest(manifest, error).has_value();
}

/** "valid", or the library's text. */
static std::string schema_answer(const json_t* manifest) {
    std::string message = "valid";
    const int result = validate_against_schema_file(dump(manifest), kSchemaPath, &message);
    EXPECT_TRUE(result == JSON_VALID || result == JSON_NOT_VALID) << message;
    return message;
}

TEST(ManifestSchema, AcceptsTheSamples) {
    EXPECT_EQ(schema_answer(test::valid_manifest().get()), "valid");
    EXPECT_EQ(schema_answer(test::small_manifest().get()), "valid");
}

struct Change {
    const char* path;
    const char* value;
};

#define SETUP "velkPackageConf.setup."
#define CONFIGURATION "velkPackageConf.configuration."

TEST(ManifestSchema, RefusesWhatTheProgramRefuses) {
    const Change changes[] = {
        {"velkPackageConf", ""},
        {"velkPackageConf", "5"},
        {"velkPackageConf.setup", ""},
        {"velkPackageConf.setup", "[]"},
        {SETUP "appName", ""},
        {SETUP "appName", "7"},
        {SETUP "appName", R"("1app")"},
        {SETUP "appName", R"("app\n")"},
        {SETUP "appName", R"("\u00e4pp")"},
        {SETUP "friendlyName", "null"},
        {SETUP "friendlyName", R"("a\rb")"},
        {SETUP "version", ""},
        {SETUP "version", R"("1.2")"},
        {SETUP "version", R"("01.2.3")"},
        {SETUP "version", R"("1.2.3-01")"},
        {SETUP "vendorId", "[]"},
        {SETUP "architecture", "{}"},
        {SETUP "user", R"({"username": "sdk"})"},
        {SETUP "user.username", "5"},
        {SETUP "runOptions", R"("a\nb")"},
        {SETUP "runMode", ""},
        {SETUP "runMode", R"("\n")"},
        {SETUP "compatibleOsVersions", "{}"},
        {SETUP "compatibleOsVersions", "[]"},
        {SETUP "compatibleOsVersions", R"(["11"])"},
        {SETUP "compatibleOsVersions", R"([{"max": "11"}])"},
        {SETUP "compatibleOsVersions", R"([{"min": "1.02", "max": "2"}])"},
        {SETUP "compatibleOsVersions", R"([{"min": "1.2.3.4", "max": "2"}])"},
        {"velkPackageConf.installation.postInstallScript", "1"},
        {"velkPackageConf.uninstallation.preUninstallScript", "false"},
        {SETUP "appId", "17"},
        {SETUP "appId", R"("x")"},
        {SETUP "appId", R"("-1")"},
        {SETUP "appId", R"("5 ")"},
        {"resources.deepLearningProcessor.enabled", R"("true")"},
        {"resources.deepLearningProcessor.required", "1"},
        {"resources.deepLearningProcessor.enabled", "false"},
        {"resources.deepLearningProcessor.enabled", ""},
        {CONFIGURATION "containers.containerHost", R"("true")"},
        {CONFIGURATION "containers.createDockerSymlinks", "null"},
        {CONFIGURATION "cpuScheduling.realTimePriority", "50"},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"("0")"},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"("100")"},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"("")"},
        {CONFIGURATION "httpConfig", "{}"},
        {CONFIGURATION "httpConfig", "[5]"},
        {CONFIGURATION "httpConfig", R"([{"access": "admin", "name": "x"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "name": "x"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "directory", "access": "Viewer"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastcgi", "access": "admin", "name": "x"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin", "name": "/x"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin", "name": ".."}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin", "name": "a/../b"}])"},
        {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin", "name": ""}])"},
    };
    for (const auto& [path, value] : changes) {
        const JsonPtr manifest = test::manifest_with(path, value);
        EXPECT_FALSE(program_accepts(manifest.get())) << path << ": " << value;
        EXPECT_THAT(schema_answer(manifest.get()), testing::StartsWith("Validation failed - "))
            << path << ": " << value;
    }
}

TEST(ManifestSchema, LeavesToTheProgramWhatASchemaCannotSay) {
    const Change changes[] = {
        // Numbers have their bounds as text only in the program.
        {SETUP "version", R"("1.2147483648.0")"},
        {SETUP "appId", R"("2147483647")"},
        {SETUP "compatibleOsVersions", R"([{"min": "0", "max": "2147483648"}])"},
        // Two values are compared with each other.
        {SETUP "compatibleOsVersions", R"([{"min": "12", "max": "11.9"}])"},
    };
    for (const auto& [path, value] : changes) {
        const JsonPtr manifest = test::manifest_with(path, value);
        EXPECT_FALSE(program_accepts(manifest.get())) << path << ": " << value;
        EXPECT_EQ(schema_answer(manifest.get()), "valid") << path << ": " << value;
    }
    // The serial number is compared with that of the device, which this machine is not.
    const JsonPtr developer = test::manifest_with(SETUP "appName", R"("developer_mode")");
    test::change(developer.get(), "velkPackageConf.developerMode",
                 R"({"vendorId": "acme", "deviceSerialNumber": "1"})");
    EXPECT_FALSE(program_accepts(developer.get()));
    EXPECT_EQ(schema_answer(developer.get()), "valid");
    test::change(developer.get(), "velkPackageConf.developerMode", R"({"vendorId": "acme"})");
    EXPECT_THAT(schema_answer(developer.get()), testing::StartsWith("Validation failed - "));
}

/** Every path of the manifest to a value, objects included. */
static void collect_value_paths(const json_t* object, const std::string& prefix,
                                std::vector<std::string>* paths) {
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(const_cast<json_t*>(object), key, value) {
        paths->push_back(prefix + key);
        if (json_is_object(value))
            collect_value_paths(value, prefix + key + ".", paths);
    }
}

TEST(ManifestSchema, AcceptsEveryChangedManifestThatTheProgramAccepts) {
    static const char* const kValues[] = {
        "null",
        "true",
        "false",
        "0",
        "17",
        "1.5",
        "[]",
        "{}",
        R"("")",
        R"("a")",
        R"("5")",
        R"(" +7")",
        R"("-0")",
        R"("099")",
        R"("1.2.3")",
        R"("1.2.3-a+b")",
        R"("a\u2028b")",
        R"("a\u0085\tb")",
        R"("developer")",
        R"(["a"])",
        R"({"username": "sdk"})",
        R"([{"min": "0", "max": "0.0"}])",
        R"({"required": false})",
        R"({"enabled": true})",
        R"([{"type": "directory", "access": "viewer", "name": 5}])",
        R"([{"type": "fastCgi", "access": "admin", "name": "a/./\u2028b//..c/.."}])",
    };
    std::vector<std::string> paths;
    collect_value_paths(test::valid_manifest().get(), "", &paths);
    paths.insert(paths.end(),
                 {SETUP "user", SETUP "user.username", "velkPackageConf.developerMode", "other"});
    std::mt19937 random(4711);
    const auto pick = [&random](const auto& from) { return from[random() % std::size(from)]; };
    size_t accepted = 0;
    for (int i = 0; i < 800; i++) {
        const JsonPtr manifest = test::valid_manifest();
        std::string first = pick(paths);
        std::string second = pick(paths);
        // The longer path first: the shorter may take away where it leads.
        if (first.size() < second.size())
            std::swap(first, second);
        test::change(manifest.get(), first, pick(kValues));
        if (random() % 2 == 0)
            test::change(manifest.get(), second, pick(kValues));
        if (!program_accepts(manifest.get()))
            continue;
        accepted++;
        EXPECT_EQ(schema_answer(manifest.get()), "valid") << dump(manifest.get());
    }
    EXPECT_GT(accepted, 150);
}

/** Every key that the schema names under "properties" has a description, unless it only narrows a condition.
 */
static void check_descriptions(const json_t* schema, const std::string& where) {
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(json_object_get(schema, "properties"), key, value) {
        const json_t* reference = json_object_get(value, "$ref");
        EXPECT_TRUE(reference || json_object_get(value, "description")) << where << key;
        check_descriptions(value, where + key + ".");
    }
    if (const json_t* items = json_object_get(schema, "items"))
        check_descriptions(items, where + "[].");
}

TEST(ManifestSchema, DescribesEveryKey) {
    const JsonPtr schema(json_load_file(kSchemaPath.c_str(), 0, nullptr));
    ASSERT_TRUE(schema);
    check_descriptions(schema.get(), "");
    const char* name = nullptr;
    json_t* definition = nullptr;
    json_object_foreach(json_object_get(schema.get(), "definitions"), name, definition)
        check_descriptions(definition, std::string(name) + ".");
}
