#include "manifest/names.h"

#include <gtest/gtest.h>

#include "support.h"

using test::describe;

static std::string check_name(const std::string& name) {
    ErrorSlot error;
    const bool valid = is_valid_app_name(name, error);
    EXPECT_NE(valid, error.is_set()) << name;
    return describe(error);
}

TEST(Names, AnApplicationNameIsALetterAndUpTo99WordCharactersAndHyphens) {
    for (const std::string& name :
         {std::string("a"), std::string("Z"), std::string("My-App_2"), "a" + std::string(99, '-')})
        EXPECT_EQ(check_name(name), "none") << name;
    for (const std::string& name :
         {std::string(), std::string("1app"), std::string("_app"), std::string("-app"), std::string("my app"),
          std::string("app\n"), std::string("app\0", 4), std::string("app."), std::string("a/b"),
          std::string("\xc3\xa9t\xc3\xa9"), std::string("appl\xe9"), "a" + std::string(100, 'b'),
          std::string("no_clean_on_failure")})
        EXPECT_EQ(check_name(name), "10 Character sequence in application name is not allowed") << name;
}

TEST(Names, AnApplicationNameInAManifestIsHeldAgainstTheManifest) {
    ErrorSlot error;
    EXPECT_TRUE(check_manifest_app_name("a" + std::string(99, 'b'), error));
    EXPECT_FALSE(check_manifest_app_name("a" + std::string(100, 'b'), error));
    EXPECT_EQ(describe(error), "29 Character sequence in application name is not allowed");
}

TEST(Names, ANameCheckWithoutASlotIsAFault) {
    EXPECT_DEATH((void)is_valid_app_name("a", nullptr), "`error' failed");
}

static std::string check_file_name(const std::string& path) {
    ErrorSlot error;
    const bool valid = check_package_file_name(path, error);
    EXPECT_NE(valid, error.is_set()) << path;
    return describe(error);
}

TEST(Names, APackageFileNameHas1To255HarmlessCharacters) {
    for (const std::string& path :
         {std::string("a.vlp"), std::string("/tmp/x y/My-App_1.2.vlp"), std::string(".."),
          std::string(255, 'a'), "/tmp/" + std::string(255, 'a')})
        EXPECT_EQ(check_file_name(path), "none") << path;
    for (const std::string& path :
         {std::string(), std::string("/tmp/"), std::string("a b.vlp"), std::string("a.vlp\n"),
          std::string("a'b.vlp"), std::string("\xc3\xbc.vlp"), std::string(256, 'a')})
        EXPECT_EQ(check_file_name(path),
                  "10 Character sequence in application package file name is not allowed")
            << path;
}

TEST(Names, ANewlineIsALineFeedOrACarriageReturn) {
    for (const std::optional<std::string>& value :
         {std::optional<std::string>(), std::optional<std::string>(""),
          std::optional<std::string>("a\tb\v\f")}) {
        ErrorSlot error;
        EXPECT_TRUE(check_no_newline(value, "x", error));
        EXPECT_FALSE(error.is_set());
    }
    for (const char* value : {"\n", "\r", "a\nb", "a\r", "\r\n"}) {
        ErrorSlot error;
        EXPECT_FALSE(check_no_newline(value, "runOptions", error));
        EXPECT_EQ(describe(error), "29 Field 'runOptions' in manifest contains a newline");
    }
}

TEST(Names, APathTraversalIsAnAbsolutePathOrOneThroughADotDirectory) {
    for (const std::optional<std::string>& value :
         {std::optional<std::string>(), std::optional<std::string>("a/b"), std::optional<std::string>("a..b"),
          std::optional<std::string>("..."), std::optional<std::string>(".a"),
          std::optional<std::string>("..a/b"), std::optional<std::string>("a/.."),
          std::optional<std::string>("a/./b"), std::optional<std::string>("a//b")}) {
        ErrorSlot error;
        EXPECT_TRUE(check_no_path_traversal(value, "x", error)) << value.value_or("(none)");
        EXPECT_FALSE(error.is_set());
    }
    for (const char* value : {"", "/", "/x", ".", "..", "./x", "../x", "a/../b", "a/b/../../c", "..//"}) {
        ErrorSlot error;
        EXPECT_FALSE(check_no_path_traversal(value, "httpConfig.name", error)) << value;
        EXPECT_EQ(describe(error), "29 Field 'httpConfig.name' in manifest contains a path traversal");
    }
}

TEST(Names, ADecimalTextIsConvertedWhole) {
    const std::pair<const char*, int32_t> numbers[] = {
        {"", 0},
        {"0", 0},
        {"-0", 0},
        {"007", 7},
        {" 5", 5},
        {"\t\n+12", 12},
        {"2147483646", 2147483646},
        {"-2147483648", INT32_MIN},
    };
    for (const auto& [text, expected] : numbers) {
        int32_t result = -7;
        EXPECT_TRUE(string_to_int(text, &result)) << text;
        EXPECT_EQ(result, expected) << text;
    }
    for (const char* text :
         {" ", "5 ", "5x", "x", "0x10", "1.0", "--1", "+", "2147483647", "2147483648", "-2147483649",
          "9223372036854775807", "99999999999999999999999", "-99999999999999999999999"}) {
        int32_t result = -7;
        EXPECT_FALSE(string_to_int(text, &result)) << text;
        EXPECT_EQ(result, -7) << text;
    }
}

static std::string convert(const char* text, int32_t* result) {
    ErrorSlot error;
    const bool converted = convert_manifest_string_to_integer(text, "f", 1, 99, result, error);
    EXPECT_NE(converted, error.is_set()) << text;
    return describe(error);
}

TEST(Names, AnIntegerOfAManifestLiesInItsClosedRange) {
    int32_t result = -7;
    EXPECT_EQ(convert("0", &result), "29 Manifest field 'f' must be in the range [1, 99]");
    EXPECT_EQ(convert("100", &result), "29 Manifest field 'f' must be in the range [1, 99]");
    EXPECT_EQ(convert("1O", &result), "29 Failed to convert the string to an integer for 'f'");
    EXPECT_EQ(result, -7);
    EXPECT_EQ(convert("1", &result), "none");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(convert("99", &result), "none");
    EXPECT_EQ(result, 99);
}

TEST(Names, AnIntegerWithoutATextOrAFieldNameIsAFault) {
    int32_t result = 0;
    EXPECT_DEATH((void)convert_manifest_string_to_integer(nullptr, "f", 0, 1, &result, nullptr),
                 "`string_value && field_name' failed");
    EXPECT_DEATH((void)convert_manifest_string_to_integer("1", nullptr, 0, 1, &result, nullptr),
                 "`string_value && field_name' failed");
}
