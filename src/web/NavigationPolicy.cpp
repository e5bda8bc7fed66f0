#include "web/NavigationPolicy.h"

namespace orvane {

NavigationDecision DecideNavigation(const std::string& target, bool link_clicked,
                                    const std::string& site_address) {
  if (link_clicked && !IsOnSite(target, site_address))
    return NavigationDecision::OpenInBrowser;
  return NavigationDecision::Allow;
}

} // namespace orvane
