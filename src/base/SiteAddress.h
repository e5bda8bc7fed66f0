// The site's host rule: which addresses belong to the site. Pages stay
// inside Orvane while they are on it.
#pragma once

#include <string>

namespace orvane {

// The host of an address; "" when it has none or cannot be parsed.
std::string HostOf(const std::string& address);

// On the site: no host, the site's host, "127.0.0.1" or "localhost" (exact
// comparisons; ports and schemes do not matter).
bool IsOnSite(const std::string& target, const std::string& site_address);

} // namespace orvane
