#include "lifecycle/velkctl-json-validate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>

#include "lifecycle/schema-process.h"
#include "support.h"

using test::TemporaryDirectory;
using test::write_text;
using testing::HasSubstr;
using testing::StartsWith;

/** "RESULT MESSAGE", just the result when there is no message. */
static std::string answer(int result, const std::string& message) {
    return std::to_string(result) + (message.empty() ? "" : " " + message);
}

static std::string validate(const std::string& input, const std::string& schema,
                            const ValidationLimits& limits = {}) {
    std::string message;
    const int result = validate_in_process(input, schema, limits, &message);
    return answer(result, message);
}

TEST(JsonValidate, ADocumentThatItsSchemaAcceptsIsValid) {
    EXPECT_EQ(validate(R"({"a": 1})", R"({"required": ["a"]})"), "0");
    EXPECT_EQ(validate("17", "true"), "0");
}

TEST(JsonValidate, ARefusalCarriesTheLibrarysTextWithoutItsNewline) {
    EXPECT_EQ(validate("{}", R"({"required": ["a"]})"),
              "3 Validation failed - At  of {} - required property 'a' not found in object");
}

TEST(JsonValidate, WhatIsNotJsonIsToldApart) {
    EXPECT_THAT(validate("{", "true"), StartsWith("1 Validation failed - [json.exception.parse_error.101]"));
    EXPECT_THAT(validate("", "true"), StartsWith("1 Validation failed - [json.exception.parse_error.101]"));
    EXPECT_THAT(validate("\"\xff\"", "true"),
                StartsWith("1 Validation failed - [json.exception.parse_error.101]"));
    EXPECT_THAT(validate("{}", "{"), StartsWith("2 Validation failed - [json.exception.parse_error.101]"));
    EXPECT_THAT(validate("{}", ""), StartsWith("2 Validation failed - [json.exception.parse_error.101]"));
}

TEST(JsonValidate, ASchemaThatIsNoneOrNeedsAnotherFileIsUnusable) {
    EXPECT_THAT(validate("{}", "5"), StartsWith("2 Validation failed - invalid JSON-type for a schema"));
    EXPECT_THAT(validate("{}", R"({"pattern": "("})"), StartsWith("2 Validation failed - "));
    EXPECT_EQ(validate("{}", R"({"$ref": "http://elsewhere.example/schema.json"})"),
              "2 Validation failed - external schema reference 'http://elsewhere.example/schema.json' needs "
              "loading, but "
              "no loader callback given");
    EXPECT_THAT(validate("{}", R"({"$ref": "#/definitions/missing"})"), StartsWith("2 Validation failed - "));
}

TEST(JsonValidate, OnlyTheFormatIriIsChecked) {
    const char* iri = R"({"format": "iri"})";
    EXPECT_EQ(validate(R"("https://m\u00fcller.example/stra\u00dfe")", iri), "0");
    EXPECT_EQ(validate(R"("urn:x:y")", iri), "0");
    EXPECT_EQ(validate("5", iri), "0");
    EXPECT_THAT(validate(R"("no iri")", iri), testing::AllOf(StartsWith("3 Validation failed - "),
                                                             testing::EndsWith("no iri is not valid iri")));
    EXPECT_EQ(validate(R"("x")", R"({"format": "ipv4"})"), "0");
    EXPECT_EQ(validate(R"("x")", R"({"format": "no such format"})"), "0");
}

static std::string nested(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JsonValidate, SchemasThatRecurseWithoutEndAreSurvived) {
    EXPECT_EQ(
        validate("{}", R"({"$ref": "#"})"),
        "3 Validation failed - the schema recurses without end or takes too much stack on this document");
    EXPECT_EQ(
        validate("{}", R"({"allOf": [{"$ref": "#"}]})"),
        "3 Validation failed - the schema recurses without end or takes too much stack on this document");
}

TEST(JsonValidate, DeepNestingIsRefusedBeyondItsLimit) {
    const std::string recursive = R"({"items": {"$ref": "#"}})";
    EXPECT_EQ(validate(nested(1000), recursive), "0");
    EXPECT_EQ(validate(nested(1001), recursive), "1 Validation failed - more than 1000 levels of nesting");
    EXPECT_EQ(validate(nested(100'000), "true"), "1 Validation failed - more than 1000 levels of nesting");
    EXPECT_EQ(validate("{}", nested(100'000)), "2 Validation failed - more than 1000 levels of nesting");
    EXPECT_EQ(validate(R"(["[[\"[[", "]]", {"a": "{\\"}])", "true", {.nesting = 2}), "0");
    std::string schema = "true";
    for (int i = 0; i < 999; i++)
        schema.insert(0, R"({"not":)").push_back('}');
    EXPECT_THAT(validate("5", schema), testing::AnyOf("0", StartsWith("3 Validation failed - ")));
}

TEST(JsonValidate, ABacktrackingPatternOnALongTextIsSurvived) {
    const std::string text = "\"" + std::string(200'000, 'a') + "c\"";
    EXPECT_THAT(validate(text, R"({"pattern": "^(a|b)*$"})"), StartsWith("3 Validation failed - "));
}

TEST(JsonValidate, APatternThatWouldTakeForeverIsCutOff) {
    const ValidationLimits limits{.processor_seconds = 1};
    EXPECT_EQ(validate("\"" + std::string(64, 'a') + "!\"", R"({"pattern": "^(a+)+$"})", limits),
              "3 Validation failed - it takes more than 1 s of processor time");
}

TEST(JsonValidate, AHugeDocumentIsAnsweredWithinItsMemory) {
    const std::string text = "\"" + std::string(64 << 20, 'a') + "\"";
    EXPECT_EQ(validate(text, R"({"type": "string"})", {.processor_seconds = 100}), "0");
    std::string list = "[1";
    while (list.size() < 64 << 20)
        list += ",1";
    EXPECT_THAT(validate(list + "]", R"({"type": "array"})", {.memory_bytes = 64UL << 20}),
                testing::AnyOf("1 Validation failed - std::bad_alloc", StartsWith("3 Validation failed - ")));
}

TEST(JsonValidate, TheLimitsAreTheChildsAlone) {
    struct rlimit before = {};
    struct rlimit after = {};
    getrlimit(RLIMIT_CPU, &before);
    EXPECT_EQ(validate("{}", "true"), "0");
    getrlimit(RLIMIT_CPU, &after);
    EXPECT_EQ(before.rlim_cur, after.rlim_cur);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

static std::string validate_files(const std::string& input, const std::string& schema) {
    std::string message = "(unchanged)";
    const int result = validate_file_against_schema(input, schema, &message);
    return answer(result, message);
}

TEST(JsonValidate, FilesThatCannotBeReadAreNamed) {
    const TemporaryDirectory directory;
    const std::string document = directory / "document";
    write_text(document, "{}");
    EXPECT_EQ(validate_files(directory / "none", directory / "none"),
              "1 Failed to read input " + (directory / "none"));
    EXPECT_EQ(validate_files(document, directory / "none"), "2 Failed to read " + (directory / "none"));
    EXPECT_EQ(validate_files(directory.path(), document), "1 Failed to read input " + directory.path());
    EXPECT_EQ(validate_files(document, directory.path()), "2 Failed to read " + directory.path());
    EXPECT_EQ(validate_files(document, document), "0 (unchanged)");
}

/** A directory of schemas: accepting, refusing and broken ones. */
class SchemaDirectory : public testing::Test {
  protected:
    void add(const std::string& name, const std::string& schema) { write_text(directory_ / name, schema); }
    std::string search(const char* text = "{}") {
        std::string message;
        const int result = validate_text_against_schema_dir("App", text, directory_.path(), &message);
        return answer(result, message);
    }

    TemporaryDirectory directory_;
    test::LogCapture log_;
};

TEST_F(SchemaDirectory, OneSchemaThatAcceptsIsEnoughAndNothingIsLogged) {
    add("1.json", "false");
    add("2.json", "true");
    add("3.json", "not json");
    EXPECT_EQ(search(), "0");
    EXPECT_EQ(log_.text(), "");
}

TEST_F(SchemaDirectory, EveryFailureIsLoggedWhenNoSchemaAccepts) {
    add("1.json", "false");
    ASSERT_EQ(mkdir((directory_ / "sub").c_str(), 0755), 0);
    add("sub/2.json", "{");
    EXPECT_EQ(search(), "3 App: No valid schemas found");
    EXPECT_THAT(log_.text(), HasSubstr("Failed to validate App using schema file " + (directory_ / "1.json") +
                                       ": Validation failed - "));
    EXPECT_THAT(log_.text(),
                HasSubstr("Failed to validate App using schema file " + (directory_ / "sub/2.json") +
                          ": Validation failed - [json.exception.parse_error.101]"));
    const std::string text = log_.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(SchemaDirectory, ASchemaInASubDirectoryIsFound) {
    ASSERT_EQ(mkdir((directory_ / "a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((directory_ / "a/b").c_str(), 0755), 0);
    add("a/b/schema.json", "true");
    EXPECT_EQ(search(), "0");
}

TEST_F(SchemaDirectory, AnEmptyDirectoryHasNoValidSchemaAndLogsNothing) {
    EXPECT_EQ(search(), "3 App: No valid schemas found");
    EXPECT_EQ(log_.text(), "");
}

TEST_F(SchemaDirectory, HasSchemasWhenThereIsARegularFileAnywhereInIt) {
    EXPECT_FALSE(schema_dir_has_schemas(directory_ / "none"));
    EXPECT_FALSE(schema_dir_has_schemas(directory_.path()));
    ASSERT_EQ(mkdir((directory_ / "sub").c_str(), 0755), 0);
    EXPECT_FALSE(schema_dir_has_schemas(directory_.path()));
    add("sub/any", "");
    EXPECT_TRUE(schema_dir_has_schemas(directory_.path()));
}

TEST_F(SchemaDirectory, LinksAreNeitherSchemasNorDirectories) {
    const TemporaryDirectory elsewhere;
    write_text(elsewhere / "schema.json", "true");
    ASSERT_EQ(symlink((elsewhere / "schema.json").c_str(), (directory_ / "schema.json").c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.path().c_str(), (directory_ / "sub").c_str()), 0);
    ASSERT_EQ(symlink(".", (directory_ / "loop").c_str()), 0);
    EXPECT_EQ(search(), "3 App: No valid schemas found");
}

TEST_F(SchemaDirectory, ADocumentThatIsNotJsonIsRefusedByEverySchema) {
    add("1.json", "true");
    EXPECT_EQ(search("{"), "3 App: No valid schemas found");
    EXPECT_THAT(log_.text(), HasSubstr("1.json: Validation failed - [json.exception.parse_error.101]"));
}

TEST_F(SchemaDirectory, AMissingDocumentAndAMissingDirectoryAreToldApart) {
    EXPECT_EQ(search(nullptr), "1 App: Input is NULL");
    std::string message;
    EXPECT_EQ(validate_text_against_schema_dir("App", "{}", directory_ / "none", &message), 4);
    EXPECT_EQ(message,
              "Failed to read schema directory " + (directory_ / "none") + ": No such file or directory");
}

TEST_F(SchemaDirectory, AFileIsNamedByItsPath) {
    const TemporaryDirectory elsewhere;
    write_text(elsewhere / "input", "{}");
    std::string message;
    EXPECT_EQ(validate_file_against_schema_dir(elsewhere / "input", directory_.path(), &message), 3);
    EXPECT_EQ(message, (elsewhere / "input") + ": No valid schemas found");
    EXPECT_EQ(validate_file_against_schema_dir(elsewhere / "none", directory_.path(), &message), 1);
    EXPECT_EQ(message, "Failed to read input " + (elsewhere / "none"));
}
