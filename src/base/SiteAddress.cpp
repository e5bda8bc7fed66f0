#include "base/SiteAddress.h"

#include <glib.h>

namespace orvane {

std::string HostOf(const std::string& address) {
  GUri* uri = g_uri_parse(address.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (!uri)
    return "";
  const char* host = g_uri_get_host(uri);
  std::string result = host ? host : "";
  g_uri_unref(uri);
  return result;
}

bool IsOnSite(const std::string& target, const std::string& site_address) {
  std::string host = HostOf(target);
  if (host.empty() || host == "127.0.0.1" || host == "localhost")
    return true;
  return host == HostOf(site_address);
}

namespace {
std::string AsciiLower(const char* text) {
  gchar* lower = g_ascii_strdown(text, -1);
  std::string result = lower;
  g_free(lower);
  return result;
}

int DefaultPort(const std::string& scheme) {
  return scheme == "http" ? 80 : scheme == "https" ? 443 : 0;
}

// Scheme and host in lower case and the port as written (-1 when none) of an
// http or https address with a host.
std::optional<Origin> WebOriginAsWritten(const std::string& address) {
  // An address holding a NUL is cut short by the C parser; it is no address.
  if (address.find('\0') != std::string::npos)
    return std::nullopt;
  GUri* uri = g_uri_parse(address.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (!uri)
    return std::nullopt;
  std::optional<Origin> origin;
  const char* scheme = g_uri_get_scheme(uri);
  const char* host = g_uri_get_host(uri);
  if (scheme && host && *host) {
    Origin found{AsciiLower(scheme), AsciiLower(host), g_uri_get_port(uri)};
    if (DefaultPort(found.scheme) != 0)
      origin = std::move(found);
  }
  g_uri_unref(uri);
  return origin;
}
} // namespace

std::optional<Origin> OriginOf(const std::string& address) {
  std::optional<Origin> origin = WebOriginAsWritten(address);
  if (!origin)
    return std::nullopt;
  if (origin->port < 0)
    origin->port = DefaultPort(origin->scheme);
  if (origin->host == "localhost")
    origin->host = "127.0.0.1";
  return origin;
}

std::optional<std::string> LocationOrigin(const std::string& address) {
  std::optional<Origin> origin = WebOriginAsWritten(address);
  if (!origin)
    return std::nullopt;
  std::string host = origin->host.find(':') != std::string::npos
                         ? "[" + origin->host + "]" // an IPv6 address
                         : origin->host;
  std::string text = origin->scheme + "://" + host;
  if (origin->port >= 0 && origin->port != DefaultPort(origin->scheme))
    text += ":" + std::to_string(origin->port);
  return text;
}

bool HasSiteOrigin(const std::string& address, const std::string& site_address) {
  std::optional<Origin> origin = OriginOf(address);
  return origin && origin == OriginOf(site_address);
}

} // namespace orvane
