#pragma once

#include <string>

#include "lifecycle/velkctl-json-validate.h"

/**
 * Validate a document against a schema, both as text, in a child process within the limits. The answers and
 * messages are those of validate_against_schema_file. Nothing of the child is left when it returns.
 */
[[nodiscard]] int validate_in_process(const std::string& input, const std::string& schema,
                                      const ValidationLimits& limits, std::string* message);
