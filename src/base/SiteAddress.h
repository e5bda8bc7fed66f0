// The site's address rules. Navigation uses the host rule: pages stay inside
// Orvane while they are on the site's host. The page bridge uses the
// stricter origin rule: only the site's own documents may drive the program.
#pragma once

#include <optional>
#include <string>

namespace orvane {

// The host of an address; "" when it has none or cannot be parsed.
std::string HostOf(const std::string& address);

// On the site: no host, the site's host, "127.0.0.1" or "localhost" (exact
// comparisons; ports and schemes do not matter).
bool IsOnSite(const std::string& target, const std::string& site_address);

// Scheme, host and port of a web address.
struct Origin {
  std::string scheme;
  std::string host;
  int port = 0;
  bool operator==(const Origin&) const = default;
};

// The origin of an http or https address: scheme and host in lower case,
// the default port (80, 443) filled in, and "localhost" read as "127.0.0.1",
// so that the two name one host. Addresses of any other scheme (blob:,
// data:, about:, file:, ...), without a host, or unparsable have none.
std::optional<Origin> OriginOf(const std::string& address);

// The origin of an http or https address as a page's script reads it in
// location.origin: "scheme://host" with ":port" unless it is the scheme's
// default, the host as written (no localhost rule). nullopt otherwise.
std::optional<std::string> LocationOrigin(const std::string& address);

// True when the address has an origin and it is the site address's.
bool HasSiteOrigin(const std::string& address, const std::string& site_address);

} // namespace orvane
