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

} // namespace orvane
