#include "integration/cfgtree.h"

#include <gtest/gtest.h>

#include "integration/dbus-policy.h"
#include "manifest/samples.h"
#include "store/velkctl-store.h"
#include "support.h"

namespace {

std::string expected(const std::string& name) { return test::read_text(TEST_DATA_DIR "/params/" + name); }

const std::vector<Parameter> PARAMETERS = {
    {"Speed", "10", "int:min=0;max=100"},
    {"label_2", R"(say "hi" $HOME 5% \)", "string"},
};

JsonPtr manifest_with_parameters(const std::string& list) {
    return test::json_of(R"({"velkPackageConf": {"configuration": {"paramConfig": )" + list + "}}}");
}

/** What reading one parameter, described by these members, fails with. */
std::string refusal(const std::string& list) {
    ErrorSlot error;
    EXPECT_FALSE(read_parameters(manifest_with_parameters(list).get(), error)) << list;
    return test::describe(error);
}

std::string parameter(const std::string& name, const std::string& value = "1",
                      const std::string& type = "string") {
    return R"([{"name": ")" + name + R"(", "default": ")" + value + R"(", "type": ")" + type + R"("}])";
}

bool accepts(const std::string& list) {
    ErrorSlot error;
    return read_parameters(manifest_with_parameters(list).get(), error).has_value() && !error.is_set();
}

}  // namespace

TEST(ParameterTexts, AreThoseOfTheParameterService) {
    EXPECT_EQ(parameter_values_text("myApp", PARAMETERS), expected("values.conf"));
    EXPECT_EQ(parameter_group_text("myApp", "velk-myapp", PARAMETERS), expected("group.conf"));
}

TEST(ParameterTexts, KeepTheirFrameWithoutParameters) {
    EXPECT_EQ(parameter_values_text("myApp", {}), expected("values-none.conf"));
    EXPECT_EQ(parameter_group_text("myApp", "velk-myapp", {}), expected("group-none.conf"));
}

TEST(ParameterTexts, CapitaliseTheFirstLetterOfTheGroupOnly) {
    EXPECT_EQ(parameter_group_name("myApp"), "MyApp");
    EXPECT_EQ(parameter_group_name("MyApp"), "MyApp");
    EXPECT_EQ(parameter_group_name("x"), "X");
}

TEST(BusPolicy, LetsTheApplicationsUserAndRootOwnTheService) {
    EXPECT_EQ(bus_policy_path("myApp"), "/etc/dbus-1/system.d/myApp.conf");
    EXPECT_EQ(bus_policy_text("myApp", "velk-myapp"), expected("bus-policy.conf"));
}

TEST(BusPolicy, StaysWellFormedForANameWithTwoHyphens) {
    EXPECT_EQ(bus_policy_text("a--b", "velk-a--b"), expected("bus-policy-hyphens.conf"));
    EXPECT_EQ(bus_policy_text("a---b", "u").find("--b can"), std::string::npos);
}

TEST(Parameters, AreReadInTheirOrder) {
    ErrorSlot error;
    const auto parameters = read_parameters(
        manifest_with_parameters(R"([{"name": "b", "default": "", "type": "x"}, {"name": "a", "default": "2",
                                      "type": "", "other": 3}])")
            .get(),
        error);
    ASSERT_TRUE(parameters);
    ASSERT_EQ(parameters->size(), 2U);
    EXPECT_EQ((*parameters)[0].name + "," + (*parameters)[0].default_value + "," + (*parameters)[0].type,
              "b,,x");
    EXPECT_EQ((*parameters)[1].name + "," + (*parameters)[1].default_value + "," + (*parameters)[1].type,
              "a,2,");
}

TEST(Parameters, MayBeAbsentOrEmpty) {
    ErrorSlot error;
    for (const char* manifest : {"{}", R"({"velkPackageConf": {"configuration": {}}})",
                                 R"({"velkPackageConf": {"configuration": {"paramConfig": []}}})"}) {
        const auto parameters = read_parameters(test::json_of(manifest).get(), error);
        ASSERT_TRUE(parameters) << manifest;
        EXPECT_TRUE(parameters->empty());
    }
}

TEST(Parameters, AreAListOfObjects) {
    EXPECT_EQ(refusal("{}"), "29 paramConfig in manifest is not an array");
    EXPECT_EQ(refusal("null"), "29 paramConfig in manifest is not an array");
    EXPECT_EQ(refusal(R"(["a"])"), "29 paramConfig in manifest does not contain objects");
    EXPECT_EQ(refusal("[[]]"), "29 paramConfig in manifest does not contain objects");
}

TEST(Parameters, NeedNameDefaultAndTypeAsStrings) {
    EXPECT_EQ(refusal("[{}]"), "29 Could not read name from manifest");
    EXPECT_EQ(refusal(R"([{"name": "a"}])"), "29 Could not read default from manifest");
    EXPECT_EQ(refusal(R"([{"name": "a", "default": "b"}])"), "29 Could not read type from manifest");
    for (const char* list : {R"([{"name": 1}])", R"([{"name": "a", "default": 1}])",
                             R"([{"name": "a", "default": "1", "type": false}])"})
        EXPECT_EQ(refusal(list), "29 Could not read from manifest - value is not string");
}

TEST(Parameters, HaveNamesOfOneToThirtyTwoCharacters) {
    const std::string length = "29 Parameter name must contain between 1 and 32 characters.";
    EXPECT_EQ(refusal(parameter("")), length);
    EXPECT_EQ(refusal(parameter(std::string(33, 'a'))), length);
    EXPECT_TRUE(accepts(parameter(std::string(32, 'a'))));
    EXPECT_TRUE(accepts(parameter("a")));
}

TEST(Parameters, HaveNamesOfLettersDigitsAndUnderscores) {
    const std::string characters = "29 Parameter name must only contain alphanumeric characters or '_'.";
    for (const char* name : {"1a", "_a", "a-b", "a b", "a.b", "ä", "a\\n", "a{", "a\\\""})
        EXPECT_EQ(refusal(parameter(name)), characters) << name;
    EXPECT_TRUE(accepts(parameter("A_1b")));
}

TEST(Parameters, HoldNoNewlines) {
    for (const char* text : {"a\\nb", "\\n", "a\\r"}) {
        EXPECT_EQ(refusal(parameter("a", text)), "29 Field 'default' in manifest contains a newline");
        EXPECT_EQ(refusal(parameter("a", "1", text)), "29 Field 'type' in manifest contains a newline");
    }
}

TEST(Parameters, AreRefusedOnTheFirstCardOnly) {
    ErrorSlot error;
    const JsonPtr with = manifest_with_parameters("[]");
    EXPECT_FALSE(setup_parameters(with.get(), "/none", "myApp", "none", "none", STORE_SD_CARD1, error));
    EXPECT_EQ(test::describe(error),
              "34 Manifest includes parameter configuration which means the application can only be "
              "installed to the "
              "default location");
    error.clear();
    const JsonPtr without = test::json_of("{}");
    EXPECT_TRUE(setup_parameters(without.get(), "/none", "myApp", "none", "none", STORE_SD_CARD1, error));
    EXPECT_EQ(test::describe(error), "none");
}
