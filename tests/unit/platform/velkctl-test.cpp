#include "platform/libvelkctl.h"

#include <gtest/gtest.h>

#include "support.h"

namespace {

constexpr const char* HEAD = "group G {\nparser = Standard2parser\n";

std::string param(const std::string& name, const std::string& type = "string") {
    return "param " + name + " {\n  mount = \"Standard2{G}{" + name + "}\"\n  type = \"" + type + "\"\n}\n";
}

}  // namespace

class MergedGroups : public testing::Test {
  protected:
    /** The merged file, or the error. */
    std::string merge(const std::string& current, const std::string& saved) {
        test::write_text(directory / "current", current);
        test::write_text(directory / "saved", saved);
        VelkctlError* error = nullptr;
        const bool done =
            velkctl_parconf_merge_files((directory / "current").c_str(), (directory / "saved").c_str(),
                                        (directory / "merged").c_str(), &error);
        if (done)
            return test::read_text(directory / "merged");
        EXPECT_TRUE(error && error->foreign);
        const std::string text = error ? std::to_string(error->code) + " " + error->message : "no record";
        if (error)
            velkctl_error_free(error);
        return text;
    }

    test::TemporaryDirectory directory;
};

TEST_F(MergedGroups, KeepTheCurrentDefinition) {
    const std::string current = HEAD + param("a", "int") + "}\n";
    EXPECT_EQ(merge(current, "group G {\nparser = Other\n" + param("a", "string") + "}\n"), current);
    EXPECT_EQ(merge(current, "group G {\n}\n"), current);
}

TEST_F(MergedGroups, GetTheSavedParametersBehindTheCurrentOnesInTheSavedOrder) {
    EXPECT_EQ(merge(HEAD + param("m") + "}\n", HEAD + param("z") + param("m", "int") + param("b") + "}\n"),
              HEAD + param("m") + param("z") + param("b") + "}\n");
}

TEST_F(MergedGroups, ComeFromWholeFilesOnly) {
    const std::string whole = std::string(HEAD) + "}\n";
    EXPECT_EQ(merge(HEAD, whole), "10 " + (directory / "current") + " is not a parameter group file");
    EXPECT_EQ(merge(whole, HEAD + std::string("param a {\n}\n")),
              "10 " + (directory / "saved") + " is not a parameter group file");
    EXPECT_EQ(merge(whole, ""), "10 " + (directory / "saved") + " is not a parameter group file");
    EXPECT_FALSE(test::name_exists(directory / "merged"));
}

TEST_F(MergedGroups, AreWrittenOrReported) {
    test::write_text(directory / "group", std::string(HEAD) + "}\n");
    VelkctlError* error = nullptr;
    EXPECT_FALSE(velkctl_parconf_merge_files((directory / "group").c_str(), (directory / "group").c_str(),
                                             (directory / "none/merged").c_str(), &error));
    ASSERT_TRUE(error);
    EXPECT_NE(std::string(error->message).find("No such file or directory"), std::string::npos);
    velkctl_error_free(error);
    EXPECT_FALSE(velkctl_parconf_merge_files((directory / "none").c_str(), (directory / "group").c_str(),
                                             (directory / "merged").c_str(), nullptr));
}
