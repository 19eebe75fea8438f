#pragma once

#include <optional>
#include <string>

/**
 * The ASCII URI for an IRI: the host in its ASCII form, everything else that is not ASCII escaped. Nothing
 * when the text is not an absolute URI or its host has no ASCII form. An IRI without a host, such as a URN,
 * is fine.
 */
[[nodiscard]] std::optional<std::string> iri_to_uri(const std::string& iri);
