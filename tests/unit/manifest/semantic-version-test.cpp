#include <gtest/gtest.h>

#include <sstream>

#include "manifest/manifest-rules.h"
#include "manifest/samples.h"
#include "support.h"

/*
 * The version rule on the lists of valid and invalid examples that were published with Semantic
 * Versioning 2.0.0.
 */

static std::vector<std::string> examples(const char* name) {
    std::istringstream lines(test::read_text(std::string(TEST_DATA_DIR "/manifest/") + name));
    std::vector<std::string> texts;
    for (std::string line; std::getline(lines, line);)
        texts.push_back(line);
    return texts;
}

/** The parsed version, or the error, of a manifest with that version. */
static std::string parse(const std::string& version) {
    ErrorSlot error;
    const JsonPtr manifest = test::manifest_with("velkPackageConf.setup.version", "\"" + version + "\"");
    const std::optional<ParsedManifest> parsed = parse_manifest(manifest.get(), error);
    return parsed ? format_version(parsed->version) : test::describe(error);
}

static std::string mismatch(const std::string& version) {
    return "29 Version '" + version + "' does not follow the semantic version format";
}

TEST(SemanticVersion, TheValidExamplesAreAcceptedWithTheirThreeNumbers) {
    const std::vector<std::string> versions = examples("semver-valid");
    ASSERT_EQ(versions.size(), 31);
    for (const std::string& version : versions) {
        // The one example whose numbers do not fit into the version's fields.
        const bool too_large = version.starts_with("99999999999999999999999.");
        EXPECT_EQ(parse(version),
                  too_large ? mismatch(version) : version.substr(0, version.find_first_of("-+")));
    }
}

TEST(SemanticVersion, TheInvalidExamplesAreRefused) {
    const std::vector<std::string> versions = examples("semver-invalid");
    ASSERT_EQ(versions.size(), 40);
    for (const std::string& version : versions)
        EXPECT_EQ(parse(version), mismatch(version));
}

TEST(SemanticVersion, TextAroundAVersionIsRefused) {
    for (const char* version : {"", " 1.2.3", "1.2.3 ", "ver1.2.3", "v1.2.3", "1.2.3-\xc3\xa4"})
        EXPECT_EQ(parse(version), mismatch(version));
    EXPECT_EQ(parse("1.2.3\\n"), mismatch("1.2.3\n"));
}
