#include "lifecycle/iri.h"

#include <glib.h>

#include <memory>

#include "base/handles.h"

using UriPtr = std::unique_ptr<GUri, ReleaseWith<g_uri_unref>>;

/** `lead` and the part with what is not ASCII escaped; what is escaped already stays. Empty for a part that
 * is not there. */
static std::string escaped(const char* lead, const char* part) {
    if (!part)
        return {};
    const GStringPtr text(g_uri_escape_string(part, "!#$%&'()*+,/:;=?@[]", FALSE));
    return std::string(lead) + text.get();
}

/** "//USER@HOST:PORT" as far as given, empty without a host; nothing when the host has no ASCII form. */
static std::optional<std::string> authority_of(GUri* parts) {
    const char* host = g_uri_get_host(parts);
    if (!host)
        return "";
    const GStringPtr ascii_host(g_hostname_to_ascii(host));
    if (!ascii_host)
        return std::nullopt;
    const std::string user = escaped("", g_uri_get_userinfo(parts));
    const std::string name = ascii_host.get();
    const bool is_ipv6 = name.find(':') != std::string::npos;
    const int port = g_uri_get_port(parts);
    return "//" + user + (g_uri_get_userinfo(parts) ? "@" : "") + (is_ipv6 ? "[" + name + "]" : name) +
           (port >= 0 ? ":" + std::to_string(port) : "");
}

std::optional<std::string> iri_to_uri(const std::string& iri) {
    if (iri.find('\0') != std::string::npos)
        return std::nullopt;
    const UriPtr parts(g_uri_parse(iri.c_str(), G_URI_FLAGS_ENCODED, nullptr));
    if (!parts)
        return std::nullopt;
    const std::optional<std::string> authority = authority_of(parts.get());
    const std::string path = escaped("", g_uri_get_path(parts.get()));
    // Without a host two slashes at the start of the path would be read as the start of one.
    if (!authority || (authority->empty() && path.starts_with("//")))
        return std::nullopt;
    return std::string(g_uri_get_scheme(parts.get())) + ":" + *authority + path +
           escaped("?", g_uri_get_query(parts.get())) + escaped("#", g_uri_get_fragment(parts.get()));
}
