#pragma once

#include <string>

/*
 * Validation of JSON documents against JSON schemas, draft 7. The answers are small numbers; on every answer
 * but JSON_VALID the message is replaced, and `message` is required.
 *
 * The schema library runs in a process of its own with limited stack, memory and time, so that no schema and
 * no document can do harm: a validation that exceeds a limit fails with a message.
 */
enum JsonValidation : int {
    JSON_VALID = 0,
    JSON_INPUT_UNUSABLE = 1,  ///< cannot be read, or is not JSON
    JSON_SCHEMA_UNUSABLE =
        2,               ///< cannot be read, is not JSON, or is not a schema that the library can work with
    JSON_NOT_VALID = 3,  ///< no schema accepts the document
    JSON_DIRECTORY_UNUSABLE = 4,  ///< the schema directory cannot be opened
};

/** What one validation may use. */
struct ValidationLimits {
    unsigned processor_seconds = 10;
    unsigned long stack_bytes = 64UL << 20;
    unsigned long memory_bytes = 512UL << 20;  ///< beyond what the process has already
    unsigned nesting = 1000;                   ///< of the schema and of the document
};

/** Validate a file. "Failed to read input %s", "Failed to read %s" for the schema, "Validation failed - %s".
 */
[[nodiscard]] int validate_file_against_schema(const std::string& input_path, const std::string& schema_path,
                                               std::string* message);

/** The same for a document in memory. */
[[nodiscard]] int validate_against_schema_file(const std::string& input_text, const std::string& schema_path,
                                               std::string* message, const ValidationLimits& limits = {});

/** Validate a file against every schema of a directory until one accepts it. */
[[nodiscard]] int validate_file_against_schema_dir(const std::string& input_path,
                                                   const std::string& schema_dir, std::string* message);

/**
 * The same for a document in memory and a directory that an application may write, which must be no link
 * itself. Schemas are the regular files of at most 16 MiB in the directory and in the directories below it;
 * links are left alone, also those that take a schema's place meanwhile. When none accepts the document, each
 * one's failure is logged as a general error, and the message is "%s: No valid schemas found".
 *
 * @param name  what the document is called in messages
 * @param text  the document; null is "%s: Input is NULL", JSON_INPUT_UNUSABLE
 */
[[nodiscard]] int validate_text_against_schema_dir(const std::string& name, const char* text,
                                                   const std::string& schema_dir, std::string* message);

/** Whether a schema lies in such a directory or below it, so that the search has something to try. */
[[nodiscard]] bool schema_dir_has_schemas(const std::string& schema_dir);
