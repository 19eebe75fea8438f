#include "system/key-file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "support.h"

using test::describe;
using testing::EndsWith;
using testing::StartsWith;

class KeyFile : public testing::Test {
  protected:
    bool read_bool(bool fallback) {
        return get_keyfile_bool(file, "Install", "AllowUnsigned", fallback, error);
    }

    [[nodiscard]] std::string read_error(const std::string& key, const std::string& reason) const {
        return "10 src/system/key-file.cpp:N: Failed reading key " + key + ", group Install from " + file +
               ": " + reason;
    }

    test::TemporaryDirectory directory;
    const std::string file = directory / "settings.conf";
    test::LogCapture log;
    ErrorSlot error;
};

TEST_F(KeyFile, GivesTheBooleanThatItHolds) {
    test::write_text(file, "# a comment\n[Install]\nAllowUnsigned=true\n");
    EXPECT_TRUE(read_bool(false));
    test::write_text(file, "[Install]\nAllowUnsigned=false\n");
    EXPECT_FALSE(read_bool(true));
    test::write_text(file, "[Install]\nAllowUnsigned = 1\n");
    EXPECT_TRUE(read_bool(false));
    EXPECT_EQ(describe(error), "none");
    EXPECT_EQ(log.text(), "");
}

TEST_F(KeyFile, ThatIsMissingGivesTheDefaultWithoutAnError) {
    EXPECT_TRUE(read_bool(true));
    EXPECT_FALSE(read_bool(false));
    EXPECT_EQ(describe(error), "none");
    EXPECT_EQ(log.text(), "Defaulting to 'true' for [Install].AllowUnsigned, no keyfile: " + file +
                              "\nDefaulting to 'false' for [Install].AllowUnsigned, no keyfile: " + file +
                              "\n");
}

TEST_F(KeyFile, ThatCannotBeLoadedGivesTheDefaultSilently) {
    test::write_text(file, "this is no key file\n");
    EXPECT_TRUE(read_bool(true));
    EXPECT_FALSE(read_bool(false));
    EXPECT_TRUE(get_keyfile_bool(directory.path(), "Install", "AllowUnsigned", true, error));
    EXPECT_EQ(describe(error), "none");
    EXPECT_EQ(log.text(), "");
}

TEST_F(KeyFile, WithoutTheKeyGivesTheDefaultAndAnError) {
    test::write_text(file, "[Install]\nOther=true\n");
    EXPECT_TRUE(read_bool(true));
    EXPECT_THAT(describe(error), StartsWith(read_error("AllowUnsigned", "")));
    EXPECT_THAT(describe(error), testing::HasSubstr("AllowUnsigned"));
    EXPECT_EQ(log.text(), "Defaulting to 'true' for [Install].AllowUnsigned, bad keyfile: " + file + "\n");
}

TEST_F(KeyFile, WithoutTheGroupGivesTheDefaultAndAnError) {
    test::write_text(file, "[Other]\nAllowUnsigned=true\n");
    EXPECT_FALSE(read_bool(false));
    EXPECT_THAT(describe(error), StartsWith(read_error("AllowUnsigned", "")));
    EXPECT_EQ(log.text(), "Defaulting to 'false' for [Install].AllowUnsigned, bad keyfile: " + file + "\n");
}

TEST_F(KeyFile, WithWhatIsNoBooleanGivesTheDefaultAndAnError) {
    for (const char* value : {"yes", "TRUE", "2", "", "true false"}) {
        ErrorSlot reason;
        test::write_text(file, std::string("[Install]\nAllowUnsigned=") + value + "\n");
        EXPECT_TRUE(get_keyfile_bool(file, "Install", "AllowUnsigned", true, reason)) << value;
        EXPECT_THAT(describe(reason), StartsWith(read_error("AllowUnsigned", ""))) << value;
    }
}

TEST_F(KeyFile, NeedsAnErrorSlotForABoolean) {
    const test::ChildResult result =
        test::run_child([this] { get_keyfile_bool(file, "Install", "AllowUnsigned", true, nullptr); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `error' failed.\n"));
}

TEST_F(KeyFile, GivesTheIntegerThatItHolds) {
    int32_t value = 0;
    test::write_text(file, "[Install]\nSeconds=30\nLow=-2147483648\nHigh=2147483647\n");
    EXPECT_TRUE(get_keyfile_int(&value, file, "Install", "Seconds", error));
    EXPECT_EQ(value, 30);
    EXPECT_TRUE(get_keyfile_int(&value, file, "Install", "Low", error));
    EXPECT_EQ(value, INT32_MIN);
    EXPECT_TRUE(get_keyfile_int(&value, file, "Install", "High", error));
    EXPECT_EQ(value, INT32_MAX);
    EXPECT_EQ(describe(error), "none");
}

TEST_F(KeyFile, ThatIsMissingHasNoInteger) {
    int32_t value = 7;
    EXPECT_FALSE(get_keyfile_int(&value, file, "Install", "Seconds", error));
    EXPECT_EQ(describe(error), read_error("Seconds", "No such file or directory"));
    EXPECT_EQ(value, 7);
    EXPECT_EQ(log.text(), "");
}

TEST_F(KeyFile, WithoutAnIntegerLeavesTheValueUntouched) {
    int32_t value = 7;
    for (const char* text :
         {"[Install]\n", "[Other]\nSeconds=3\n", "[Install]\nSeconds=soon\n", "[Install]\nSeconds=\n",
          "[Install]\nSeconds=3s\n", "[Install]\nSeconds=2147483648\n", "no key file\n"}) {
        ErrorSlot reason;
        test::write_text(file, text);
        EXPECT_FALSE(get_keyfile_int(&value, file, "Install", "Seconds", reason)) << text;
        EXPECT_THAT(describe(reason), StartsWith(read_error("Seconds", ""))) << text;
        EXPECT_EQ(value, 7) << text;
    }
    EXPECT_FALSE(get_keyfile_int(&value, file, "Install", "Seconds", nullptr));
}

class KeyFileMerge : public KeyFile {
  protected:
    std::string merge(const std::string& current_text, const std::string& saved_text) {
        test::write_text(current, current_text);
        test::write_text(saved, saved_text);
        return merge_key_files("MyApp", current, saved, error);
    }

    const std::string current = directory / "current";
    const std::string saved = directory / "saved";
};

/** Where GLib puts blank lines differs between its versions. */
static std::string without_blank_lines(std::string text) {
    for (size_t place = text.find("\n\n"); place != std::string::npos; place = text.find("\n\n"))
        text.erase(place, 1);
    return text;
}

TEST_F(KeyFileMerge, TakesSavedValuesKeepsNewKeysAndAddsSavedOnes) {
    const std::string saved_text =
        "# old version\n[MyApp]\nC=only saved\nA=kept\n[Other]\nA=not taken\nD=not taken\n";
    EXPECT_EQ(without_blank_lines(merge(
                  "# new version\n[MyApp]\nA=new\n# about B\nB=default\n[Other]\nA=theirs\n", saved_text)),
              "# new version\n[MyApp]\nA=kept\n# about B\nB=default\nC=only saved\n[Other]\nA=theirs\n");
    EXPECT_EQ(describe(error), "none");
    EXPECT_EQ(test::read_text(saved), saved_text);
}

TEST_F(KeyFileMerge, TakesValuesAsTheyStand) {
    EXPECT_EQ(merge("[MyApp]\nA=x\n", "[MyApp]\nA=a\\nb\\\\;\\s\"$%\xff\nB=\n"),
              "[MyApp]\nA=a\\nb\\\\;\\s\"$%\xff\nB=\n");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(KeyFileMerge, KeepsKeysThatLookLikeTranslations) {
    EXPECT_EQ(merge("[MyApp]\nName=n\nName[de]=neu\nName[fr]=nouveau\n",
                    "[MyApp]\nName[de]=alt\nName[sv]=gammal\n"),
              "[MyApp]\nName=n\nName[de]=alt\nName[fr]=nouveau\nName[sv]=gammal\n");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(KeyFileMerge, OfAnEmptySavedGroupIsTheCurrentFile) {
    EXPECT_EQ(merge("[MyApp]\nA=x\n", "[MyApp]\n"), "[MyApp]\nA=x\n");
    EXPECT_EQ(merge("[MyApp]\n", "[MyApp]\nA=x\n"), "[MyApp]\nA=x\n");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(KeyFileMerge, NeedsTheGroupInBothFiles) {
    EXPECT_EQ(merge("[myapp]\nA=x\n", "[MyApp]\nA=y\n"), "");
    EXPECT_EQ(describe(error), "10 src/system/key-file.cpp:N: Failed loading keys from: " + current +
                                   " Error: there is no group MyApp");
    error.clear();
    EXPECT_EQ(merge("[MyApp]\nA=x\n", "[Other]\nA=y\n"), "");
    EXPECT_EQ(describe(error), "10 src/system/key-file.cpp:N: Failed loading keys from: " + saved +
                                   " Error: there is no group MyApp");
}

TEST_F(KeyFileMerge, NeedsBothFiles) {
    test::write_text(current, "[MyApp]\nA=x\n");
    EXPECT_EQ(merge_key_files("MyApp", current, directory / "absent", error), "");
    EXPECT_EQ(describe(error), "10 src/system/key-file.cpp:N: Failed loading keys from: " +
                                   (directory / "absent") + " Error: No such file or directory");
    error.clear();
    EXPECT_EQ(merge_key_files("MyApp", directory / "absent", current, error), "");
    EXPECT_EQ(describe(error), "10 src/system/key-file.cpp:N: Failed loading keys from: " +
                                   (directory / "absent") + " Error: No such file or directory");
    EXPECT_EQ(merge_key_files("MyApp", directory / "absent", current, nullptr), "");
}

TEST_F(KeyFileMerge, RefusesAFileThatIsNoKeyFile) {
    EXPECT_EQ(merge("[MyApp]\nA=x\n", "garbage\n"), "");
    EXPECT_THAT(describe(error),
                StartsWith("10 src/system/key-file.cpp:N: Failed loading keys from: " + saved + " Error: "));
}
