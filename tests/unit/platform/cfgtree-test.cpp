#include "platform/libcfgtree.h"

#include <gtest/gtest.h>

#include "support.h"

/** Whether the group file with this text is refused. What it would load is not looked at: it lies at a fixed
 * path. */
static bool is_refused(const std::string& text) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "group", text);
    bool failed = false;
    legacy_cli_resetOptions();
    cli_readGroupFile((directory / "group").c_str(), &failed);
    return failed;
}

TEST(ParameterGroups, AreRefusedWhenMalformed) {
    for (const char* text : {
             "",
             "\n",
             "group G {\n",
             "group G\n}\n",
             "group  {\n}\n",
             "group a b {\n}\n",
             "group ../x {\n}\n",
             "group G {\n}\nmore\n",
             "group G {\n}\n}\n",
             "group G {\nparam a {\n}\n",
             "group G {\nparam a {\nparam b {\n}\n}\n}\n",
             "group G {\nparam a b {\n}\n}\n",
             "group G {\na\n}\n",
             "group G {\na =\n}\n",
             "group G {\na = b c\n}\n",
             "group G {\na = \"b\n}\n",
             "group G {\na = \"b\"c\"\n}\n",
             "group G {\nparam a {\n  type = \"x\"\n  type2 = \"y\" } \n}\n}\n",
             "group G {\n\n}\n",
         })
        EXPECT_TRUE(is_refused(text)) << text;
}

TEST(ParameterGroups, AreNotReadFromWhatIsNoFile) {
    bool failed = false;
    cli_readGroupFile("/nonexistent/group", &failed);
    EXPECT_TRUE(failed);
    failed = false;
    cli_readGroupFile("/", &failed);
    EXPECT_TRUE(failed);
}

TEST(ParameterGroups, AreNotDeletedByANameThatIsNone) {
    for (const char* name : {"", "../x", "a/b", "a b"}) {
        bool failed = false;
        cli_deleteGroup(name, &failed);
        EXPECT_TRUE(failed) << name;
    }
}
