#pragma once

#include <string>

namespace orvane {

// Percent-encodes every byte of the UTF-8 text outside A–Z, a–z, 0–9 and
// "-._~", for a query parameter's value.
std::string QueryEscape(const std::string& text);

// The address the quick panel loads: the site address with every trailing
// "/" removed, and "/?add=<escaped selection>" when there is a selection.
std::string PanelAddress(const std::string& site_address, const std::string& selection);

} // namespace orvane
