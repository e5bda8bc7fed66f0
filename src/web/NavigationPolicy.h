// Where a navigation goes: pages stay inside Orvane while they are on the
// site; only a clicked link elsewhere leaves, for the default browser.
#pragma once

#include "base/SiteAddress.h"

#include <string>

namespace orvane {

enum class NavigationDecision { Allow, OpenInBrowser };

// Only a link the user clicked that leads off the site leaves the program.
NavigationDecision DecideNavigation(const std::string& target, bool link_clicked,
                                    const std::string& site_address);

} // namespace orvane
