// Which addresses belong to the site: pages stay inside Orvane while they
// are on it; only a clicked link elsewhere leaves, for the default browser.
#pragma once

#include <string>

namespace orvane {

// The host of an address; "" when it has none or cannot be parsed.
std::string HostOf(const std::string& address);

// On the site: no host, the site's host, "127.0.0.1" or "localhost" (exact
// comparisons; ports and schemes do not matter).
bool IsOnSite(const std::string& target, const std::string& site_address);

enum class NavigationDecision { Allow, OpenInBrowser };

// Only a link the user clicked that leads off the site leaves the program.
NavigationDecision DecideNavigation(const std::string& target, bool link_clicked,
                                    const std::string& site_address);

} // namespace orvane
