#pragma once

#include <string>
#include <vector>

#include "base/handles.h"
#include "manifest/parsed-manifest.h"

/*
 * Manifests for tests: one that breaks no rule and uses every key, and changes of it.
 */
namespace test {

/** Parse a JSON text, which may be a single value too; fails the test when it is not JSON. */
JsonPtr json_of(const std::string& text);

/** The manifest that breaks no rule. */
JsonPtr valid_manifest();

/** The smallest manifest that breaks no rule. */
JsonPtr small_manifest();

/**
 * Change the value at a path such as "velkPackageConf.setup.appName" to a JSON value given as text, making
 * objects on the way; an empty text removes it.
 */
void change(json_t* manifest, const std::string& path, const std::string& value);

/** valid_manifest() with one such change. */
JsonPtr manifest_with(const std::string& path, const std::string& value);

/** Every field of the record as a line "field=value", in the order of the record. */
std::vector<std::string> lines_of(const ParsedManifest& parsed);

/** `lines` with those replaced that have the same field as a line of `changes`. */
std::vector<std::string> with_changes(std::vector<std::string> lines,
                                      const std::vector<std::string>& changes);

}  // namespace test
