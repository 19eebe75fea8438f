#include "integration/parameter-text.h"

#include <gtest/gtest.h>

static const std::vector<Parameter> PARAMETERS = {{"Speed", "10", "int:min=0;max=100"}, {"label_2", "", ""}};

TEST(OwnGroup, IsWhatSetupWrites) {
    EXPECT_TRUE(defines_own_group("myApp", parameter_group_text("myApp", "velk-myapp", PARAMETERS)));
    EXPECT_TRUE(defines_own_group("myApp", parameter_group_text("myApp", "sdk", {})));
    EXPECT_FALSE(defines_own_group("myapp", parameter_group_text("myApp", "velk-myapp", PARAMETERS)));
}

TEST(OwnGroup, MayBeSparseAndIndented) {
    EXPECT_TRUE(defines_own_group("a", "group A {\n}\n"));
    EXPECT_TRUE(defines_own_group("a", "group A {\n   accessControl = \"\"\nparam b {\n}\n  }\n"));
}

TEST(OwnGroup, IsNothingElse) {
    for (const std::string text : {"",
                                   "\n",
                                   "group A {\n",
                                   "group A {\n}",
                                   "group B {\n}\n",
                                   "group A {\n}\n\n",
                                   "group A {\n}\n}\n",
                                   "group A {\n}\ngroup B {\n}\n",
                                   "group A {\n\n}\n",
                                   "group A {\nparam 1 {\n}\n}\n",
                                   "group A {\nparam  {\n}\n}\n",
                                   "group A {\nparam a {\nparam b {\n}\n}\n}\n",
                                   "group A {\ntype = \"x\"\n}\n",
                                   "group A {\nparam a {\naccessControl = \"x\"\n}\n}\n",
                                   "group A {\naccessControl = \"\n}\n",
                                   "group A {\naccessControl = \"x\" \n}\n",
                                   "group A {\naccessControl = \"x\"y\"\n}\n",
                                   "group A {\naccessControl = \"x\r\"\n}\n",
                                   "group A {\nfile = \"/etc/dynamic/b.conf\"\n}\n",
                                   "group A {\nparam x {\nmount = \"Standard2{A}{y}\"\n}\n}\n"})
        EXPECT_FALSE(defines_own_group("a", text)) << text;
    EXPECT_FALSE(defines_own_group("a", std::string("group A {\naccessControl = \"\0\"\n}\n", 29)));
}
