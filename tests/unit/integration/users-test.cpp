#include "integration/users.h"

#include <gtest/gtest.h>

#include <cctype>
#include <set>

#include "manifest/samples.h"
#include "support.h"

namespace {

const std::vector<std::string> ENTRIES = {
    "*",
    "com.*",
    "com.orvo.*",
    "com.orvo.policykit-system.*",
    "com.orvo.policykit-system.restrictrootaccess",
    "com.orvo.keystore1.*",
    "com.orvo.keystore1.getreferencekey.*",
    "com.orvo.keystore1.getreferencekey.signedvideo",
    "com.orvo.ssh.",
    "com.orvo.usermanagement1.",
    "com.orvo.velkmanager1.",
    "com.orvo.addonmanager.",
    "com.orvo.addondevmode1.",
    "com.orvo.addonexample1.",
};

std::string denied_by(const std::string& method) {
    const char* entry = find_denied_method_entry(method);
    return entry ? entry : "none";
}

std::string upper(std::string text) {
    for (char& character : text)
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    return text;
}

std::string alternating(std::string text) {
    for (size_t i = 0; i < text.size(); i += 2)
        text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    return text;
}

JsonPtr manifest_with_methods(const std::string& required, const std::string& conditional) {
    return test::json_of(R"({"resources": {"dbus": {"requiredMethods": )" + required +
                         R"(, "conditionalMethods": )" + conditional + "}}}");
}

std::string refusal(const std::string& required, const std::string& conditional) {
    ErrorSlot error;
    EXPECT_FALSE(requested_methods(manifest_with_methods(required, conditional).get(), error));
    return test::describe(error);
}

}  // namespace

TEST(DeniedMethods, AreRefusedInEveryLetterCase) {
    for (const std::string& entry : ENTRIES)
        for (const std::string& method : {entry, upper(entry), alternating(entry)})
            EXPECT_EQ(denied_by(method), entry) << method;
}

TEST(DeniedMethods, AreRefusedWithMoreBehindThem) {
    for (const std::string& entry : ENTRIES)
        EXPECT_NE(denied_by(entry + "x"), "none") << entry;
}

TEST(DeniedMethods, PassWithTheEntryInTheMiddleOrAtTheEnd) {
    for (const std::string& entry : ENTRIES) {
        EXPECT_EQ(denied_by("a" + entry + "b"), "none") << entry;
        EXPECT_EQ(denied_by("a" + entry), "none") << entry;
    }
}

TEST(DeniedMethods, PassWhenTheyOccurAgainFurtherOn) {
    for (const std::string& entry : ENTRIES)
        EXPECT_EQ(denied_by(entry + "x." + entry), "none") << entry;
    EXPECT_EQ(denied_by("com.orvo.ssh.x.com.orvo.ssh.y"), "none");
}

TEST(DeniedMethods, DoNotTakeAWildcardForWhatItStandsFor) {
    for (const char* method : {"com.orvo.foo.*", "com.orvo.foo.Bar", "org.example.*", "", "com",
                               "com.orvo.ssh", "com.orvo.keystore1.Get", "com.orvo.policykit-system.Other"})
        EXPECT_EQ(denied_by(method), "none") << method;
}

TEST(DeniedMethods, AreNamedByTheFirstEntryThatFits) {
    EXPECT_EQ(denied_by("COM.ORVO.SSH.Open"), "com.orvo.ssh.");
    EXPECT_EQ(denied_by("com.orvo.Keystore1.GetReferenceKey.SignedVideo"),
              "com.orvo.keystore1.getreferencekey.signedvideo");
}

TEST(RequestedMethods, AreTheRequiredOnesAndThenTheConditionalOnes) {
    ErrorSlot error;
    const auto methods = requested_methods(
        manifest_with_methods(R"(["com.orvo.b.X", "com.orvo.a.X"])", R"(["com.orvo.c.X"])").get(), error);
    EXPECT_EQ(methods, (std::vector<std::string>{"com.orvo.b.X", "com.orvo.a.X", "com.orvo.c.X"}));
    EXPECT_EQ(requested_methods(test::json_of("{}").get(), error), std::vector<std::string>());
    EXPECT_EQ(test::describe(error), "none");
}

TEST(RequestedMethods, AreRefusedWithTheEntryOfTheDenyList) {
    EXPECT_EQ(refusal(R"(["com.orvo.fine.X", "COM.orvo.SSH.Open"])", "[]"),
              R"(29 Manifest contains the disallowed dbus method "com.orvo.ssh.")");
    EXPECT_EQ(refusal("[]", R"(["*"])"), R"(29 Manifest contains the disallowed dbus method "*")");
    EXPECT_EQ(refusal(R"(["com.*"])", R"(["*"])"),
              R"(29 Manifest contains the disallowed dbus method "com.*")");
}

TEST(RequestedMethods, AreListsOfStrings) {
    EXPECT_EQ(refusal("{}", "[]"), "29 requiredMethods in manifest is not an array");
    EXPECT_EQ(refusal("[1]", "[]"), "29 requiredMethods in manifest does not contain strings");
    EXPECT_EQ(refusal("[]", "\"a\""), "29 conditionalMethods in manifest is not an array");
    EXPECT_EQ(refusal("[]", "[null]"), "29 conditionalMethods in manifest does not contain strings");
}

// --- a user that exists already ---

namespace {

std::string static_refusal(const std::string& manifest, bool dlpu = false) {
    ParsedManifest parsed;
    parsed.dlpuEnabled = dlpu;
    const test::LogCapture log;
    ErrorSlot error;
    EXPECT_FALSE(check_static_user("Sample", test::json_of(manifest).get(), parsed, error));
    return test::describe(error) + "|" + log.text();
}

std::string with_group(const std::string& group, const std::string& more = "",
                       const std::string& user = "root") {
    return R"({"velkPackageConf": {"setup": {"user": {"username": ")" + user + R"(", "group": ")" + group +
           "\"}}}" + more + "}";
}

}  // namespace

TEST(StaticUser, MayNotAskForBusMethods) {
    EXPECT_EQ(static_refusal(with_group("root", R"(, "resources": {"dbus": {}})"), true),
              "29 Manifest contains dbus methods together with a legacy user|");
}

TEST(StaticUser, MayNotAskForTheProcessor) {
    EXPECT_EQ(static_refusal(with_group("root"), true),
              "29 Manifest requests DLPU access together with a legacy user|");
}

TEST(StaticUser, NeedsAGroupBesideTheUser) {
    EXPECT_EQ(static_refusal(R"({"velkPackageConf": {"setup": {"user": {"username": "root"}}}})"),
              "29 Manifest contains one of user/group but lacks the other|");
    EXPECT_EQ(static_refusal(R"({"velkPackageConf": {"setup": {"user": {"username": "root", "group": 1}}}})"),
              "29 Could not read from manifest - value is not string|");
}

TEST(StaticUser, MustExist) {
    EXPECT_EQ(static_refusal(with_group("root", "", "no-such-user")), "29 User in manifest does not exist|");
    EXPECT_EQ(static_refusal(with_group("no-such-group")), "29 Group in manifest does not exist|");
}

TEST(StaticUser, MustBeOnTheAllowlist) {
    EXPECT_EQ(static_refusal(with_group("root")),
              "13 Sample: User 'root' or Group 'root' is not in Allowlist|"
              "Sample: User 'root' or Group 'root' is not in Allowlist\n");
}
