#include "base/Text.h"

#include <glib.h>

namespace orvane {

size_t Utf16Length(const std::string& text) {
  const char* end = nullptr;
  if (!g_utf8_validate(text.data(), gssize(text.size()), &end))
    return text.size();
  size_t units = 0;
  for (const char* p = text.data(); p < text.data() + text.size(); p = g_utf8_next_char(p))
    units += g_utf8_get_char(p) > 0xFFFF ? 2 : 1;
  return units;
}

} // namespace orvane
