#include "web/NavigationPolicy.h"

#include <glib.h>

namespace orvane {

bool MayLeaveTheProgram(const std::string& target) {
  if (target.find('\0') != std::string::npos)
    return false;
  gchar* scheme = g_uri_parse_scheme(target.c_str());
  if (!scheme)
    return false;
  std::string lower = scheme;
  g_free(scheme);
  for (char& c : lower)
    c = g_ascii_tolower(c);
  return lower == "http" || lower == "https" || lower == "mailto";
}

NavigationDecision DecideNavigation(const std::string& target, bool link_clicked,
                                    const std::string& site_address) {
  if (!link_clicked || IsOnSite(target, site_address))
    return NavigationDecision::Allow;
  return MayLeaveTheProgram(target) ? NavigationDecision::OpenInBrowser : NavigationDecision::Drop;
}

PopUpDecision DecidePopUp(const std::string& target, bool user_gesture) {
  if (!user_gesture)
    return PopUpDecision::DropNoGesture;
  return MayLeaveTheProgram(target) ? PopUpDecision::OpenInBrowser : PopUpDecision::DropScheme;
}

} // namespace orvane
