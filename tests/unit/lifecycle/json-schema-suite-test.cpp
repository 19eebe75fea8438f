#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <vector>

#include "lifecycle/schema-process.h"
#include "support.h"

/*
 * The draft-07 cases of the JSON schema test suite. Each case that is answered otherwise than the suite says
 * must be listed here with its reason, and each listed one must still be answered so.
 */
namespace fs = std::filesystem;

static const fs::path kSuite = JSON_SCHEMA_TEST_SUITE "/tests/draft7";

using nlohmann::json;

struct SuiteResult {
    size_t cases = 0;
    std::set<std::string> mismatches;
};

static void run_group(const json& group, const std::string& file, SuiteResult* result) {
    const std::string schema = group["schema"].dump();
    for (const json& one : group["tests"]) {
        std::string message;
        const int answer = validate_in_process(one["data"].dump(), schema, {}, &message);
        result->cases++;
        if ((answer == JSON_VALID) != one["valid"].get<bool>())
            result->mismatches.insert(file + ": " + group["description"].get<std::string>() + ": " +
                                      one["description"].get<std::string>());
    }
}

static SuiteResult run_files(const std::vector<fs::path>& files) {
    SuiteResult result;
    for (const fs::path& file : files) {
        std::ifstream text(file);
        for (const json& group : json::parse(text))
            run_group(group, fs::relative(file, kSuite), &result);
    }
    return result;
}

static std::vector<fs::path> json_files(bool optional) {
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kSuite)) {
        const bool is_optional = fs::relative(entry.path(), kSuite).string().starts_with("optional");
        if (entry.is_regular_file() && is_optional == optional)
            files.push_back(entry.path());
    }
    return files;
}

static std::string joined(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += name + "\n";
    return text;
}

/** The listed cases of the required or the optional files: one a line, below a line "# REASON" that holds for
 * them. */
static std::string exceptions(bool optional) {
    std::istringstream lines(test::read_text(TEST_DATA_DIR "/json-schema-suite-exceptions"));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && !line.starts_with("#") && line.starts_with("optional/") == optional)
            names.insert(line);
    return joined(names);
}

TEST(JsonSchemaSuite, TheRequiredCasesAreAnsweredAsTheSuiteSays) {
    ASSERT_TRUE(fs::is_directory(kSuite)) << "install the package json-schema-test-suite";
    const SuiteResult result = run_files(json_files(false));
    EXPECT_EQ(result.cases, 423);
    EXPECT_EQ(joined(result.mismatches), exceptions(false));
}

TEST(JsonSchemaSuite, TheOptionalCasesAreAnsweredAsTheSuiteSays) {
    ASSERT_TRUE(fs::is_directory(kSuite)) << "install the package json-schema-test-suite";
    const SuiteResult result = run_files(json_files(true));
    EXPECT_EQ(result.cases, 143);
    EXPECT_EQ(joined(result.mismatches), exceptions(true));
}
