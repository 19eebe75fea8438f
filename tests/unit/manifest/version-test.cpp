#include "manifest/version.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "support.h"

using test::describe;

static int32_t compare(Version a, Version b) { return version_compare(&a, &b); }

TEST(Version, AnAbsentPatchEqualsEveryPatch) {
    EXPECT_EQ(compare({1, 2, -1}, {1, 2, 7}), 0);
    EXPECT_EQ(compare({1, 2, 7}, {1, 2, -1}), 0);
}

TEST(Version, TheFirstDifferentPartDecides) {
    EXPECT_GT(compare({1, 3, 0}, {1, 2, 9}), 0);
    EXPECT_LT(compare({1, 9, 9}, {2, 0, 0}), 0);
    EXPECT_LT(compare({1, 2, 3}, {1, 2, 4}), 0);
    EXPECT_EQ(compare({1, 2, 3}, {1, 2, 3}), 0);
    EXPECT_GT(compare({2147483647, 0, 0}, {0, 2147483647, 2147483647}), 0);
}

TEST(Version, ComparingWithoutAMinorIsAFault) {
    const char* text = "a->major >= 0 && b->major >= 0 && a->minor >= 0 && b->minor >= 0";
    EXPECT_DEATH((void)compare({1, -1, -1}, {1, 0, 0}), text);
    EXPECT_DEATH((void)compare({1, 0, 0}, {-1, 0, 0}), text);
    EXPECT_DEATH((void)version_in_range({11, -1, -1}, {{11, 0, 0}, {12, 0, 0}}), text);
    EXPECT_DEATH((void)version_in_range({11, 5, -1}, {{-1, -1, -1}, {12, 0, 0}}), text);
}

TEST(Version, AnOpenEndReachesAsFarAsItCan) {
    EXPECT_EQ(complete_lower_bound({11, -1, -1}), (Version{11, 0, 0}));
    EXPECT_EQ(complete_lower_bound({11, 5, -1}), (Version{11, 5, 0}));
    EXPECT_EQ(complete_upper_bound({11, -1, -1}), (Version{11, 2147483647, 2147483647}));
    EXPECT_EQ(complete_upper_bound({11, 5, 3}), (Version{11, 5, 3}));
}

TEST(Version, ARangeHoldsBothItsEnds) {
    const VersionRange eleven = {{11, -1, -1}, {11, -1, -1}};
    EXPECT_TRUE(version_in_range({11, 0, 0}, eleven));
    EXPECT_TRUE(version_in_range({11, 2147483647, 4}, eleven));
    EXPECT_FALSE(version_in_range({12, 0, 0}, eleven));
    EXPECT_FALSE(version_in_range({10, 2147483647, 2147483647}, eleven));
    const VersionRange from_minor = {{11, 5, -1}, {11, -1, -1}};
    EXPECT_TRUE(version_in_range({11, 5, 0}, from_minor));
    EXPECT_TRUE(version_in_range({11, 99, 0}, from_minor));
    EXPECT_FALSE(version_in_range({11, 4, 9}, from_minor));
    const VersionRange exact = {{11, 5, 3}, {11, 5, 3}};
    EXPECT_FALSE(version_in_range({11, 5, 2}, exact));
    EXPECT_TRUE(version_in_range({11, 5, 3}, exact));
    EXPECT_FALSE(version_in_range({11, 5, 4}, exact));
}

TEST(Version, AFirmwareWithoutAPatchIsInTheRangeThatAnyOfItsPatchesIsIn) {
    EXPECT_TRUE(version_in_range({11, 5, -1}, {{11, 5, 3}, {12, -1, -1}}));
    EXPECT_FALSE(version_in_range({11, 4, -1}, {{11, 5, 3}, {12, -1, -1}}));
}

TEST(Version, IsFormattedAsFarAsItIsPresent) {
    EXPECT_EQ(format_version({11, -1, -1}), "11");
    EXPECT_EQ(format_version({11, 5, -1}), "11.5");
    EXPECT_EQ(format_version({11, 5, 64}), "11.5.64");
    EXPECT_EQ(format_version({11, -1, 64}), "11");
}

TEST(Version, RangesAreFormattedAsReadAndInOrder) {
    EXPECT_EQ(format_version_ranges({}), "");
    EXPECT_EQ(format_version_ranges({{{10, 9, -1}, {10, 12, -1}}, {{11, 5, -1}, {12, -1, -1}}}),
              "[10.9, 10.12], [11.5, 12]");
}

TEST(Version, OneRangeThatHoldsTheFirmwareIsEnough) {
    const std::vector<VersionRange> ranges = {{{10, 9, -1}, {10, 12, -1}}, {{11, 5, -1}, {12, -1, -1}}};
    ErrorSlot error;
    EXPECT_TRUE(check_compatibility({12, 99, 1}, ranges, error));
    EXPECT_TRUE(check_compatibility({10, 9, 0}, ranges, error));
    EXPECT_FALSE(error.is_set());
    EXPECT_FALSE(check_compatibility({11, 4, -1}, ranges, error));
    EXPECT_EQ(describe(error),
              "5 Firmware version 11.4 is not compatible with this application. Compatible versions: "
              "[10.9, 10.12], [11.5, 12]");
}

TEST(Version, NoRangeHoldsNoFirmware) {
    ErrorSlot error;
    EXPECT_FALSE(check_compatibility({11, 4, 0}, {}, error));
    EXPECT_EQ(describe(error),
              "5 Firmware version 11.4.0 is not compatible with this application. Compatible versions: ");
}

TEST(Version, IsScannedAsFarAsThereAreNumbers) {
    const std::tuple<const char*, int, Version> texts[] = {
        {"", 0, {}},
        {"x", 0, {}},
        {".1", 0, {}},
        {"11", 1, {11, -1, -1}},
        {"11.", 1, {11, -1, -1}},
        {"11.x", 1, {11, -1, -1}},
        {"11.5", 2, {11, 5, -1}},
        {"11,5", 1, {11, -1, -1}},
        {"11.5.64", 3, {11, 5, 64}},
        {"11.5.64.9", 3, {11, 5, 64}},
        {" 11. +5", 2, {11, 5, -1}},
        {"2147483647.0", 2, {2147483647, 0, -1}},
    };
    for (const auto& [text, count, expected] : texts) {
        Version version;
        EXPECT_EQ(scan_version(text, &version), count) << text;
        EXPECT_EQ(version, expected) << text;
    }
    for (const char* text :
         {"-1.0", "1.-1", "1.2.-3", "2147483648", "1.2147483648", "99999999999999999999.0"}) {
        Version version = {7, 7, 7};
        EXPECT_EQ(scan_version(text, &version), -1) << text;
        EXPECT_EQ(version, (Version{7, 7, 7})) << text;
    }
}

TEST(Version, AFirmwareVersionNeedsMajorAndMinor) {
    ErrorSlot error;
    EXPECT_EQ(parse_firmware_version_string("11.5", error), (Version{11, 5, -1}));
    EXPECT_EQ(parse_firmware_version_string("11.5.64-beta", error), (Version{11, 5, 64}));
    EXPECT_FALSE(error.is_set());
    for (const char* text : {"11", "", "beta", "11.", "11.x", "-1.5", "11.5.-1", "11.2147483648"}) {
        ErrorSlot refused;
        EXPECT_EQ(parse_firmware_version_string(text, refused), std::nullopt) << text;
        EXPECT_EQ(describe(refused),
                  std::string("10 src/manifest/version.cpp:N: Could not parse firmware version '") + text +
                      "' - expected at least major.minor format");
    }
}

TEST(Version, AFirmwareVersionWithoutATextIsAFault) {
    EXPECT_DEATH((void)parse_firmware_version_string(nullptr, nullptr), "`firmware_version' failed");
}

TEST(Version, TheArchitectureIsTheOneThatTheSystemTells) {
    struct utsname system = {};
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(system_architecture(), *VELKCTL_ARCHITECTURE ? VELKCTL_ARCHITECTURE : system.machine);
}
