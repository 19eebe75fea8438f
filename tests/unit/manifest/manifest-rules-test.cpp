#include "manifest/manifest-rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "manifest/samples.h"
#include "support.h"

using test::change;
using test::describe;
using test::lines_of;
using test::manifest_with;

static const std::vector<std::string> kValidRecord = {
    "appName=MyApp",
    "friendlyName=My application",
    "version=1,2,3",
    "vendorId=acme",
    "architecture=all",
    "developerMode=(none)",
    "user=velk-myapp",
    "userIsDynamic=true",
    "runOptions=--verbose",
    "runMode=respawn",
    "osVersionRanges=[10.9, 10.12], [11.5, 12]",
    "postInstallScript=postinstall.sh",
    "preUninstallScript=bin/preuninstall.sh",
    "appId=4711",
    "dlpuEnabled=true",
    "dlpuRequired=true",
    "containerHost=true",
    "createDockerSymlinks=true",
    "schedulingPolicy=rr",
    "realTimePriority=50",
    "directoryAccess=1",
    "cgiEntries=[api 0 2][control/fast 1 0]",
};

/** The outcome of a strict parse: the record or "CODE MESSAGE". */
static std::vector<std::string> strict(const json_t* manifest) {
    ErrorSlot error;
    const std::optional<ParsedManifest> parsed = parse_manifest(manifest, error);
    EXPECT_NE(parsed.has_value(), error.is_set());
    return parsed ? lines_of(*parsed) : std::vector<std::string>{describe(error)};
}

static std::vector<std::string> lenient(const json_t* manifest) {
    ErrorSlot error;
    const std::optional<ParsedManifest> parsed = parse_manifest_leniently(manifest, error);
    EXPECT_NE(parsed.has_value(), error.is_set());
    return parsed ? lines_of(*parsed) : std::vector<std::string>{describe(error)};
}

TEST(ManifestRules, AValidManifestFillsEveryField) {
    EXPECT_EQ(strict(test::valid_manifest().get()), kValidRecord);
    EXPECT_EQ(lenient(test::valid_manifest().get()), kValidRecord);
}

TEST(ManifestRules, WhatIsNotGivenHasItsDefault) {
    const std::vector<std::string> expected = {
        "appName=Small",
        "friendlyName=(none)",
        "version=1,0,0",
        "vendorId=(none)",
        "architecture=(none)",
        "developerMode=(none)",
        "user=velk-small",
        "userIsDynamic=true",
        "runOptions=",
        "runMode=never",
        "osVersionRanges=(none)",
        "postInstallScript=(none)",
        "preUninstallScript=(none)",
        "appId=-1",
        "dlpuEnabled=false",
        "dlpuRequired=false",
        "containerHost=false",
        "createDockerSymlinks=false",
        "schedulingPolicy=(none)",
        "realTimePriority=0",
        "directoryAccess=0",
        "cgiEntries=",
    };
    EXPECT_EQ(strict(test::small_manifest().get()), expected);
    EXPECT_EQ(lenient(test::small_manifest().get()), expected);
}

TEST(ManifestRules, WithoutTheTwoOuterObjectsThereIsNoRecordInEitherMode) {
    const std::vector<std::string> no_conf = {"29 Could not read velkPackageConf from manifest"};
    const std::vector<std::string> no_setup = {"29 Could not read setup from manifest"};
    const std::pair<const char*, const std::vector<std::string>*> cases[] = {
        {"{}", &no_conf},
        {"[]", &no_conf},
        {R"({"setup": {}})", &no_conf},
        {R"({"velkPackageConf": {}})", &no_setup},
        {R"({"velkPackageConf": "setup"})", &no_setup},
        {R"({"velkPackageConf": null})", &no_setup},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(strict(test::json_of(text).get()), *expected) << text;
        EXPECT_EQ(lenient(test::json_of(text).get()), *expected) << text;
    }
    EXPECT_EQ(strict(nullptr), no_conf);
    EXPECT_EQ(lenient(nullptr), no_conf);
}

TEST(ManifestRules, ASetupThatIsNoObjectHasNoKeys) {
    const JsonPtr manifest = test::json_of(R"({"velkPackageConf": {"setup": 5}})");
    EXPECT_EQ(strict(manifest.get()), std::vector<std::string>{"29 Could not read appName from manifest"});
    EXPECT_EQ(lenient(manifest.get())[0], "appName=");
}

/** One broken rule: the value that breaks it, the strict error, and what a lenient parse leaves otherwise. */
struct BrokenRule {
    const char* path;
    const char* value;
    const char* error;
    std::vector<std::string> left;
};

static const char kNotString[] = "29 Could not read from manifest - value is not string";
static const char kNotBoolean[] = "29 Could not read from manifest - value is not boolean";
static const std::vector<std::string> kNoName = {"appName=", "user=", "userIsDynamic=false"};
static const std::vector<std::string> kNoHttp = {"directoryAccess=0", "cgiEntries="};
static const std::vector<std::string> kNoRanges = {"osVersionRanges=(none)"};
static const std::vector<std::string> kNoPriority = {"schedulingPolicy=(none)", "realTimePriority=0"};

#define SETUP "velkPackageConf.setup."
#define CONFIGURATION "velkPackageConf.configuration."

static const BrokenRule kBrokenRules[] = {
    {SETUP "appName", "", "29 Could not read appName from manifest", kNoName},
    {SETUP "appName", "7", kNotString, kNoName},
    {SETUP "appName", R"("1app")", "29 Character sequence in application name is not allowed", kNoName},
    {SETUP "friendlyName", "null", kNotString, {"friendlyName=(none)"}},
    {SETUP "friendlyName",
     R"("a\rb")",
     "29 Field 'friendlyName' in manifest contains a newline",
     {"friendlyName=(none)"}},
    {SETUP "version", "", "29 Could not read version from manifest", {"version=-1,-1,-1"}},
    {SETUP "version", "1.2", kNotString, {"version=-1,-1,-1"}},
    {SETUP "version",
     R"("1.2")",
     "29 Version '1.2' does not follow the semantic version format",
     {"version=-1,-1,-1"}},
    {SETUP "version",
     R"("1.2147483648.0")",
     "29 Version '1.2147483648.0' does not follow the semantic version format",
     {"version=-1,-1,-1"}},
    {SETUP "vendorId", "[]", kNotString, {"vendorId=(none)"}},
    {SETUP "architecture", "{}", kNotString, {"architecture=(none)"}},
    {SETUP "user",
     R"({"username": "sdk"})",
     "29 Manifest contains both application specific user and legacy user",
     {"user=", "userIsDynamic=false"}},
    {SETUP "runOptions", "true", kNotString, {"runOptions="}},
    {SETUP "runOptions",
     R"("a\nb")",
     "29 Field 'runOptions' in manifest contains a newline",
     {"runOptions="}},
    {SETUP "runMode", "", "29 Could not read runMode from manifest", {"runMode="}},
    {SETUP "runMode", "null", kNotString, {"runMode="}},
    {SETUP "runMode", R"("never\n")", "29 Field 'runMode' in manifest contains a newline", {"runMode="}},
    {SETUP "compatibleOsVersions", "{}", "29 compatibleOsVersions in manifest is not an array", kNoRanges},
    {SETUP "compatibleOsVersions", "null", "29 compatibleOsVersions in manifest is not an array", kNoRanges},
    {SETUP "compatibleOsVersions", "[]", "29 compatibleOsVersions in manifest cannot be empty", kNoRanges},
    {SETUP "compatibleOsVersions", R"(["11"])", "29 compatibleOsVersions element is not an object",
     kNoRanges},
    {SETUP "compatibleOsVersions", R"([{"max": "11"}])", "29 Could not read min from manifest", kNoRanges},
    {SETUP "compatibleOsVersions", R"([{"min": "11"}])", "29 Could not read max from manifest", kNoRanges},
    {SETUP "compatibleOsVersions", R"([{"min": 11, "max": "11"}])", kNotString, kNoRanges},
    {SETUP "compatibleOsVersions", R"([{"min": "11", "max": "12"}, {"min": "1.02", "max": "2"}])",
     "29 compatibleOsVersions contains invalid values: '1.02'", kNoRanges},
    {SETUP "compatibleOsVersions", R"([{"min": "12", "max": "11.9"}])",
     "29 Invalid compatibleOsVersions range: min 12 > max 11.9", kNoRanges},
    {"velkPackageConf.installation.postInstallScript", "1", kNotString, {"postInstallScript=(none)"}},
    {"velkPackageConf.uninstallation.preUninstallScript", "false", kNotString, {"preUninstallScript=(none)"}},
    {SETUP "appId", "17", kNotString, {"appId=-1"}},
    {SETUP "appId", R"("x")", "29 Failed to convert the string to an integer for 'appId'", {"appId=-1"}},
    {SETUP "appId",
     R"("2147483647")",
     "29 Failed to convert the string to an integer for 'appId'",
     {"appId=-1"}},
    {SETUP "appId",
     R"("-1")",
     "29 Manifest field 'appId' must be in the range [0, 2147483647]",
     {"appId=-1"}},
    {"resources.deepLearningProcessor.enabled",
     R"("true")",
     kNotBoolean,
     {"dlpuEnabled=false", "dlpuRequired=false"}},
    {"resources.deepLearningProcessor.required", "1", kNotBoolean, {"dlpuRequired=false"}},
    {"resources.deepLearningProcessor.enabled",
     "false",
     "29 DLPU access cannot be granted when required but enabled is set to false in the manifest",
     {"dlpuEnabled=false", "dlpuRequired=false"}},
    {"resources.deepLearningProcessor.enabled",
     "",
     "29 DLPU access cannot be granted when required but enabled is set to false in the manifest",
     {"dlpuEnabled=false", "dlpuRequired=false"}},
    {CONFIGURATION "containers.containerHost", R"("true")", kNotBoolean, {"containerHost=false"}},
    {CONFIGURATION "containers.createDockerSymlinks", "null", kNotBoolean, {"createDockerSymlinks=false"}},
    {CONFIGURATION "cpuScheduling.realTimePriority", "50", kNotString, kNoPriority},
    {CONFIGURATION "cpuScheduling.realTimePriority", R"("5x")",
     "29 Failed to convert the string to an integer for 'realTimePriority'", kNoPriority},
    {CONFIGURATION "cpuScheduling.realTimePriority", R"("100")",
     "29 Manifest field 'realTimePriority' must be in the range [1, 99]", kNoPriority},
    {CONFIGURATION "httpConfig", "{}", "29 httpConfig in manifest is not an array", kNoHttp},
    {CONFIGURATION "httpConfig", "[5]", "29 Could not read type from manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"access": "admin", "name": "x"}])",
     "29 Could not read type from manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": 1, "access": "admin", "name": "x"}])", kNotString, kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "name": "x"}])",
     "29 Could not read access from manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "directory"}])", "29 Could not read access from manifest",
     kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "directory", "access": "Viewer"}])",
     "29 Invalid access level in manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "odd", "access": "odd", "name": 1}])",
     "29 Invalid access level in manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "fastcgi", "access": "admin"}])",
     "29 Invalid CGI type in manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin"}])",
     "29 Could not read name from manifest", kNoHttp},
    {CONFIGURATION "httpConfig", R"([{"type": "fastCgi", "access": "admin", "name": "../x\n"}])",
     "29 Field 'httpConfig.name' in manifest contains a newline", kNoHttp},
    {CONFIGURATION "httpConfig",
     R"([{"type": "directory", "access": "viewer"}, {"type": "fastCgi", "access": "admin", "name": "a"},
         {"type": "fastCgi", "access": "admin", "name": "../x"}])",
     "29 Field 'httpConfig.name' in manifest contains a path traversal", kNoHttp},
};

TEST(ManifestRules, EachBrokenRuleHasItsErrorAndLeavesItsFieldEmpty) {
    for (const BrokenRule& rule : kBrokenRules) {
        const JsonPtr manifest = manifest_with(rule.path, rule.value);
        const std::string what = std::string(rule.path) + ": " + rule.value;
        EXPECT_EQ(strict(manifest.get()), std::vector<std::string>{rule.error}) << what;
        EXPECT_EQ(lenient(manifest.get()), test::with_changes(kValidRecord, rule.left)) << what;
    }
}

TEST(ManifestRules, TheFirstBrokenRuleInOrderIsReported) {
    // Every broken rule of the table at once, each later one of the same key in place of the earlier.
    const JsonPtr manifest = test::valid_manifest();
    for (const BrokenRule& rule : kBrokenRules)
        change(manifest.get(), rule.path, *rule.value ? rule.value : "null");
    const std::pair<const char*, const char*> repairs[] = {
        {"29 Character sequence in application name is not allowed", SETUP "appName"},
        {"29 Field 'friendlyName' in manifest contains a newline", SETUP "friendlyName"},
        {"29 Version '1.2147483648.0' does not follow the semantic version format", SETUP "version"},
        {kNotString, SETUP "vendorId"},
        {kNotString, SETUP "architecture"},
        {"29 Manifest contains both application specific user and legacy user", SETUP "user"},
        {"29 Field 'runOptions' in manifest contains a newline", SETUP "runOptions"},
        {"29 Field 'runMode' in manifest contains a newline", SETUP "runMode"},
        {"29 Invalid compatibleOsVersions range: min 12 > max 11.9", SETUP "compatibleOsVersions"},
        {kNotString, "velkPackageConf.installation.postInstallScript"},
        {kNotString, "velkPackageConf.uninstallation.preUninstallScript"},
        {"29 Manifest field 'appId' must be in the range [0, 2147483647]", SETUP "appId"},
        {kNotBoolean, "resources.deepLearningProcessor.enabled"},
        {kNotBoolean, "resources.deepLearningProcessor.required"},
        {kNotBoolean, CONFIGURATION "containers.containerHost"},
        {kNotBoolean, CONFIGURATION "containers.createDockerSymlinks"},
        {"29 Manifest field 'realTimePriority' must be in the range [1, 99]",
         CONFIGURATION "cpuScheduling.realTimePriority"},
        {"29 Field 'httpConfig.name' in manifest contains a path traversal", CONFIGURATION "httpConfig"},
    };
    for (const auto& [error, path] : repairs) {
        EXPECT_EQ(strict(manifest.get()), std::vector<std::string>{error}) << path;
        const std::string key = path;
        const std::string valid = key == SETUP "appName"   ? R"("MyApp")"
                                  : key == SETUP "version" ? R"("1.2.3")"
                                  : key == SETUP "runMode" ? R"("never")"
                                                           : "";
        change(manifest.get(), path, valid);
    }
    EXPECT_EQ(strict(manifest.get())[0], "appName=MyApp");
}

/** A value that just passes, and what becomes of it. */
struct PassingValue {
    const char* path;
    const char* value;
    std::vector<std::string> changes;
};

TEST(ManifestRules, ValuesThatJustPassAreKept) {
    const PassingValue values[] = {
        {SETUP "appName", R"("a")", {"appName=a", "user=velk-a"}},
        {SETUP "appName", R"("Foo_Bar-9")", {"appName=Foo_Bar-9", "user=velk-foo_bar-9"}},
        {SETUP "friendlyName", R"("")", {"friendlyName="}},
        {SETUP "friendlyName", R"("\ta\u000b\u0085")", {"friendlyName=\ta\v\xc2\x85"}},
        {SETUP "version", R"("2147483647.0.0")", {"version=2147483647,0,0"}},
        {SETUP "runMode", R"("anything else")", {"runMode=anything else"}},
        {SETUP "compatibleOsVersions", R"([{"min": "11.5", "max": "11"}])", {"osVersionRanges=[11.5, 11]"}},
        {SETUP "compatibleOsVersions", R"([{"min": "0", "max": "0.0.0"}])", {"osVersionRanges=[0, 0.0.0]"}},
        {SETUP "compatibleOsVersions",
         R"([{"min": "2147483647", "max": "2147483647"}])",
         {"osVersionRanges=[2147483647, 2147483647]"}},
        {SETUP "appId", R"("2147483646")", {"appId=2147483646"}},
        {SETUP "appId", R"("")", {"appId=0"}},
        {SETUP "appId", R"(" +7")", {"appId=7"}},
        {"velkPackageConf.installation.postInstallScript", R"("../../x")", {"postInstallScript=../../x"}},
        {"resources.deepLearningProcessor.required", "false", {"dlpuRequired=false"}},
        {"resources.deepLearningProcessor", "7", {"dlpuEnabled=false", "dlpuRequired=false"}},
        {"velkPackageConf.configuration.containers",
         "[]",
         {"containerHost=false", "createDockerSymlinks=false"}},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"("1")", {"realTimePriority=1"}},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"("99")", {"realTimePriority=99"}},
        {CONFIGURATION "cpuScheduling.realTimePriority", R"(" 5")", {"realTimePriority=5"}},
        {CONFIGURATION "httpConfig", "[]", {"directoryAccess=0", "cgiEntries="}},
        {CONFIGURATION "httpConfig",
         R"([{"type": "directory", "access": "viewer"},
                                         {"type": "directory", "access": "operator"}])",
         {"directoryAccess=1", "cgiEntries="}},
        {CONFIGURATION "httpConfig",
         R"([{"type": "fastCgi", "access": "operator", "name": "a..b"}])",
         {"directoryAccess=0", "cgiEntries=[a..b 1 1]"}},
    };
    for (const PassingValue& value : values)
        EXPECT_EQ(strict(manifest_with(value.path, value.value).get()),
                  test::with_changes(kValidRecord, value.changes))
            << value.path << ": " << value.value;
}

TEST(ManifestRules, APriorityOutsideOfOneTo99IsRefused) {
    const std::vector<std::string> out_of_range = {
        "29 Manifest field 'realTimePriority' must be in the range [1, 99]"};
    for (const char* value : {R"("0")", R"("100")", R"("")", R"("-1")"})
        EXPECT_EQ(strict(manifest_with(CONFIGURATION "cpuScheduling.realTimePriority", value).get()),
                  out_of_range)
            << value;
}

TEST(ManifestRules, ANamedUserIsStaticWhenThereIsNoLegacyUser) {
    const JsonPtr manifest = manifest_with(SETUP "user", R"({"username": "sdk", "group": "sdk"})");
    change(manifest.get(), "resources.linux", "");
    EXPECT_EQ(strict(manifest.get()), test::with_changes(kValidRecord, {"user=sdk", "userIsDynamic=false"}));
}

TEST(ManifestRules, AUserNameThatIsNoStringIsRefused) {
    const JsonPtr manifest = manifest_with(SETUP "user", R"({"username": 5})");
    change(manifest.get(), "resources.linux", "");
    EXPECT_EQ(strict(manifest.get()), std::vector<std::string>{kNotString});
    EXPECT_EQ(lenient(manifest.get()), test::with_changes(kValidRecord, {"user=", "userIsDynamic=false"}));
}

TEST(ManifestRules, AUserSectionWithoutAUserNameIsDynamic) {
    EXPECT_EQ(strict(manifest_with(SETUP "user", R"({"group": "sdk"})").get()), kValidRecord);
}

TEST(ManifestRules, ADuplicateKeyCountsByItsLastValue) {
    const JsonPtr manifest = test::json_of(
        R"({"velkPackageConf": {"setup": {"appName": "1bad", "version": "1.0.0", "runMode": "once", "appName": "Good"}}})");
    EXPECT_EQ(strict(manifest.get())[0], "appName=Good");
}

TEST(ManifestRules, AnIncompleteDeveloperModeSectionIsRefusedBeforeTheDeviceIsAsked) {
    const JsonPtr manifest = manifest_with(SETUP "appName", R"("developer_mode")");
    change(manifest.get(), "velkPackageConf.developerMode", "null");
    EXPECT_EQ(strict(manifest.get()),
              std::vector<std::string>{
                  "29 Developer Mode manifest is missing required field: 'developerMode.vendorId'"});
    change(manifest.get(), "velkPackageConf.developerMode", R"({"vendorId": "acme"})");
    EXPECT_EQ(
        strict(manifest.get()),
        std::vector<std::string>{
            "29 Developer Mode manifest is missing required field: 'developerMode.deviceSerialNumber'"});
    change(manifest.get(), "velkPackageConf.developerMode",
           R"({"vendorId": "acme", "deviceSerialNumber": 1})");
    EXPECT_EQ(
        strict(manifest.get()),
        std::vector<std::string>{
            "29 Developer Mode manifest is missing required field: 'developerMode.deviceSerialNumber'"});
    EXPECT_EQ(lenient(manifest.get()),
              test::with_changes(kValidRecord, {"appName=developer_mode", "user=velk-developer_mode"}));
}

TEST(ManifestRules, ADeveloperModeSectionOfAnotherApplicationIsNotRead) {
    EXPECT_EQ(strict(manifest_with("velkPackageConf.developerMode", "5").get()), kValidRecord);
}

TEST(ManifestRules, AnOverlongTextCannotExhaustTheMatcher) {
    const std::string name = "\"" + std::string(4 << 20, 'a') + "\"";
    EXPECT_EQ(strict(manifest_with(SETUP "appName", name).get()),
              std::vector<std::string>{"29 Character sequence in application name is not allowed"});
    const std::string http =
        R"([{"type": "fastCgi", "access": "admin", "name": ")" + std::string(8 << 20, 'a') + "\"}]";
    const JsonPtr manifest = manifest_with(CONFIGURATION "httpConfig", http);
    EXPECT_THAT(strict(manifest.get()),
                testing::ElementsAre(testing::StartsWith("10 src/system/regex.cpp:N: ")));
    EXPECT_EQ(lenient(manifest.get()), test::with_changes(kValidRecord, kNoHttp));
}

TEST(ManifestRules, AVersionCannotBeReadIntoNothing) {
    const JsonPtr object = test::json_of(R"({"version": "1"})");
    ErrorSlot error;
    EXPECT_DEATH((void)read_sem_version_or_fail_with_invalid_manifest(object.get(), "version", "1", nullptr,
                                                                      nullptr, error),
                 "`version' failed");
}

/** Every finding as "KEY: MESSAGE". */
static std::vector<std::string> faults(const json_t* manifest) {
    std::vector<std::string> lines;
    for (const ManifestFinding& finding : find_manifest_faults(manifest))
        lines.push_back(finding.key + ": " + finding.message);
    return lines;
}

TEST(ManifestRules, AValidManifestHasNoFaults) {
    EXPECT_EQ(faults(test::valid_manifest().get()), std::vector<std::string>{});
    EXPECT_EQ(faults(test::small_manifest().get()), std::vector<std::string>{});
}

TEST(ManifestRules, EachBrokenRuleIsFoundUnderItsKeyInTheDevicesWords) {
    for (const BrokenRule& rule : kBrokenRules) {
        const JsonPtr manifest = manifest_with(rule.path, rule.value);
        ErrorSlot error;
        EXPECT_FALSE(parse_manifest(manifest.get(), error));
        const std::string what = std::string(rule.path) + ": " + rule.value;
        const std::vector<ManifestFinding> found = find_manifest_faults(manifest.get());
        ASSERT_GE(found.size(), 1U) << what;
        bool named = false;
        for (const ManifestFinding& finding : found) {
            named = named || finding.message == error.message();
            // The value is named, or what it is in conflict with next to it.
            const std::string key = finding.key;
            EXPECT_TRUE(key.starts_with(rule.path) || std::string(rule.path).starts_with(key))
                << what << " " << key;
        }
        EXPECT_TRUE(named) << what;
    }
}

TEST(ManifestRules, EveryFaultOfAManifestIsFoundAtOnce) {
    const JsonPtr manifest = test::json_of(R"({"velkPackageConf": {
        "setup": {"appName": "1bad", "friendlyName": "a\nb", "appId": "x", "compatibleOsVersions":
            [{"min": "1.02", "max": 5}, {"min": "1", "max": "2"}, 7, {"min": "2", "max": "1"}]},
        "configuration": {"cpuScheduling": {"realTimePriority": 5}, "httpConfig":
            [{"type": "directory", "access": "viewer"}, {"type": "odd", "access": "all", "name": "../x"}, 5,
             {"access": "admin"}]}},
        "resources": {"deepLearningProcessor": {"required": true}}})");
    EXPECT_EQ(
        faults(manifest.get()),
        (std::vector<std::string>{
            SETUP "appName: Character sequence in application name is not allowed",
            SETUP "friendlyName: Field 'friendlyName' in manifest contains a newline",
            SETUP "version: Could not read version from manifest",
            SETUP "runMode: Could not read runMode from manifest",
            SETUP "compatibleOsVersions[0].min: compatibleOsVersions contains invalid values: '1.02'",
            SETUP "compatibleOsVersions[0].max: Could not read from manifest - value is not string",
            SETUP "compatibleOsVersions[2]: compatibleOsVersions element is not an object",
            SETUP "compatibleOsVersions[3]: Invalid compatibleOsVersions range: min 2 > max 1",
            SETUP "appId: Failed to convert the string to an integer for 'appId'",
            "resources.deepLearningProcessor: DLPU access cannot be granted when required but enabled is set "
            "to "
            "false in the manifest",
            CONFIGURATION
            "cpuScheduling.realTimePriority: Could not read from manifest - value is not string",
            CONFIGURATION "httpConfig[1].type: Invalid CGI type in manifest",
            CONFIGURATION "httpConfig[1].access: Invalid access level in manifest",
            CONFIGURATION "httpConfig[1].name: Field 'httpConfig.name' in manifest contains a path traversal",
            CONFIGURATION "httpConfig[2]: Could not read type from manifest",
            CONFIGURATION "httpConfig[3].type: Could not read type from manifest",
            CONFIGURATION "httpConfig[3].name: Could not read name from manifest",
        }));
}

TEST(ManifestRules, WithoutTheTwoOuterObjectsThatIsTheOnlyFault) {
    EXPECT_EQ(faults(nullptr),
              std::vector<std::string>{"velkPackageConf: Could not read velkPackageConf from manifest"});
    EXPECT_EQ(faults(test::json_of(R"({"velkPackageConf": 5})").get()),
              std::vector<std::string>{"velkPackageConf.setup: Could not read setup from manifest"});
}

TEST(ManifestRules, WhoseSerialNumberADeveloperModeManifestNamesIsNoFault) {
    const JsonPtr manifest = manifest_with(SETUP "appName", R"("developer_mode")");
    change(manifest.get(), "velkPackageConf.developerMode",
           R"({"vendorId": "acme", "deviceSerialNumber": "another"})");
    EXPECT_EQ(faults(manifest.get()), std::vector<std::string>{});
    change(manifest.get(), "velkPackageConf.developerMode", "{}");
    EXPECT_EQ(faults(manifest.get()),
              std::vector<std::string>{"velkPackageConf.developerMode: Developer Mode manifest is missing "
                                       "required field: 'developerMode.vendorId'"});
}
