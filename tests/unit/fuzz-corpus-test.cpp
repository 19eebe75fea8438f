#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "fuzz/targets.h"
#include "support.h"

/*
 * The collected inputs of the fuzz targets, replayed.
 */

struct Target {
    const char* name;
    void (*function)(std::string_view input);
};

class FuzzCorpus : public testing::TestWithParam<Target> {};

TEST_P(FuzzCorpus, EveryInputIsAnsweredAndNoPromiseIsBroken) {
    size_t count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(FUZZ_DIR "/corpus/") + GetParam().name)) {
        SCOPED_TRACE(entry.path());
        GetParam().function(test::read_text(entry.path()));
        count++;
    }
    EXPECT_GE(count, 5);
    EXPECT_TRUE(std::filesystem::exists(std::string(FUZZ_DIR "/") + GetParam().name + ".dict"));
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus,
                         testing::Values(Target{"allowlist", fuzz_allowlist},
                                         Target{"firmware-version", fuzz_firmware_version},
                                         Target{"iri", fuzz_iri}, Target{"manifest", fuzz_manifest},
                                         Target{"package-conf", fuzz_package_conf},
                                         Target{"version", fuzz_version}),
                         [](const testing::TestParamInfo<Target>& target) {
                             std::string name = target.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(FuzzCorpusList, HasEveryTarget) {
    size_t sources = 0;
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_DIR))
        sources += entry.path().extension() == ".cpp" && entry.path().stem() != "main";
    EXPECT_EQ(sources, 6);
}
