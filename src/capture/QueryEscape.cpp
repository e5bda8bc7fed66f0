#include "capture/QueryEscape.h"

#include "base/Settings.h"

namespace orvane {

std::string QueryEscape(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    bool keep = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                c == '-' || c == '.' || c == '_' || c == '~';
    if (keep) {
      out += char(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

std::string PanelAddress(const std::string& site_address, const std::string& selection) {
  std::string base = StripTrailingSlashes(site_address);
  if (selection.empty())
    return base;
  return base + "/?add=" + QueryEscape(selection);
}

} // namespace orvane
