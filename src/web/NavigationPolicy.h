// Where a navigation goes: pages stay inside Orvane while they are on the
// site; only a clicked link elsewhere leaves, for the default browser. What
// leaves is limited to web and mail addresses: a page must not make the
// desktop open a local file or hand an address to an arbitrary handler.
#pragma once

#include "base/SiteAddress.h"

#include <string>

namespace orvane {

enum class NavigationDecision {
  Allow,         // the view goes there
  OpenInBrowser, // the default handler gets it; the view stays
  Drop,          // nothing happens
};

// Only a link the user clicked that leads off the site leaves the program,
// and only for http, https and mailto addresses; a clicked link off the site
// with any other scheme is dropped.
NavigationDecision DecideNavigation(const std::string& target, bool link_clicked,
                                    const std::string& site_address);

// A page asked for a new window: it is never made; the address goes to the
// default handler when the user asked for it (a click, a key) and it is an
// http, https or mailto address.
enum class PopUpDecision { OpenInBrowser, DropNoGesture, DropScheme };
PopUpDecision DecidePopUp(const std::string& target, bool user_gesture);

// True for http, https and mailto addresses, the ones that may leave.
bool MayLeaveTheProgram(const std::string& target);

} // namespace orvane
