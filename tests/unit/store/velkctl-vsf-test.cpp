#include "store/velkctl-vsf.h"

#include <gtest/gtest.h>

#include "support.h"

static std::string state_of(const std::string& text) {
    ErrorSlot error;
    const std::optional<std::string> state = vsf_state_in_text("App", text, error);
    return state ? "state " + *state : test::describe(error);
}

TEST(VerificationState, IsWrittenAsAnIndentedObject) {
    EXPECT_EQ(vsf_text("-----BEGIN-----\nabc\n"),
              "{\n  \"signature\": \"-----BEGIN-----\\nabc\\n\",\n  \"state\": \"confirmed\"\n}");
    EXPECT_EQ(vsf_text(""), "{\n  \"signature\": \"\",\n  \"state\": \"confirmed\"\n}");
}

TEST(VerificationState, KeepsEveryTextThatIsUtf8) {
    const std::optional<std::string> text = vsf_text("gr\xc3\xbc\xc3\x9f \"quoted\" \\ \x01");
    ASSERT_TRUE(text);
    EXPECT_EQ(*text,
              "{\n  \"signature\": \"gr\xc3\xbc\xc3\x9f \\\"quoted\\\" \\\\ \\u0001\",\n  \"state\": "
              "\"confirmed\"\n}");
    EXPECT_EQ(state_of(*text), "state confirmed");
}

TEST(VerificationState, CannotHoldASignatureThatIsNoText) {
    EXPECT_EQ(vsf_text("\x88\x75\x04"), std::nullopt);
    EXPECT_EQ(vsf_text("\xc3"), std::nullopt);
    EXPECT_EQ(vsf_text("\xed\xa0\x80"), std::nullopt);
    EXPECT_EQ(vsf_text(std::string("a\0b", 3)), std::nullopt);
}

TEST(VerificationState, IsReadFromItsField) {
    EXPECT_EQ(state_of(R"({"state": "confirmed"})"), "state confirmed");
    EXPECT_EQ(state_of(R"({"state": "Confirmed", "signature": 5})"), "state Confirmed");
    EXPECT_EQ(state_of(R"({"state": ""})"), "state ");
}

TEST(VerificationState, OfABrokenFileIsAnError) {
    const std::string invalid = "10 src/store/velkctl-vsf.cpp:N: Invalid JSON in VSF for application App";
    EXPECT_EQ(state_of(""), invalid);
    EXPECT_EQ(state_of("{"), invalid);
    EXPECT_EQ(state_of(R"([{"state": "confirmed"}])"), invalid);
    EXPECT_EQ(state_of(R"("confirmed")"), invalid);
    EXPECT_EQ(state_of(R"({"state": "confirmed"} x)"), invalid);
    EXPECT_EQ(state_of("{\"state\": \"\xff\"}"), invalid);
    EXPECT_EQ(state_of("{}"),
              "10 src/store/velkctl-vsf.cpp:N: Missing 'state' field in VSF for application App");
    const std::string type =
        "10 src/store/velkctl-vsf.cpp:N: Unexpected type for 'state' field in VSF for application App";
    EXPECT_EQ(state_of(R"({"state": null})"), type);
    EXPECT_EQ(state_of(R"({"state": true})"), type);
    EXPECT_EQ(state_of(R"({"state": ["confirmed"]})"), type);
}

TEST(VerificationState, StandsInAFileNamedAsTheApplication) {
    EXPECT_EQ(vsf_path("App"), "/etc/velk/vsf/App");
}

TEST(VerificationState, IsNotWrittenForABadName) {
    for (const char* name : {"1App", "../App", "", "a b"}) {
        ErrorSlot error;
        EXPECT_FALSE(create_vsf(name, "", error));
        EXPECT_EQ(test::describe(error), "10 Character sequence in application name is not allowed");
    }
}

TEST(VerificationStateDeathTest, NeedsAnErrorSlotToBeWritten) {
    EXPECT_DEATH((void)create_vsf("App", "", nullptr), "error");
}
