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
} // namespace

std::optional<Origin> OriginOf(const std::string& address) {
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
    int default_port = found.scheme == "http" ? 80 : found.scheme == "https" ? 443 : 0;
    if (default_port != 0) {
      if (found.port < 0)
        found.port = default_port;
      if (found.host == "localhost")
        found.host = "127.0.0.1";
      origin = std::move(found);
    }
  }
  g_uri_unref(uri);
  return origin;
}

bool HasSiteOrigin(const std::string& address, const std::string& site_address) {
  std::optional<Origin> origin = OriginOf(address);
  return origin && origin == OriginOf(site_address);
}

} // namespace orvane
