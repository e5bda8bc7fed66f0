#include "base/Text.h"

#include "base/GObjectPtr.h"

#include <glib.h>

#include <cstdint>
#include <cstring>

namespace orvane {

std::string ValidUtf8(std::string_view bytes) {
  return GCharPtr(g_utf8_make_valid(bytes.data(), gssize(bytes.size()))).str();
}

size_t Utf16Length(const std::string& text) {
  const char* end = nullptr;
  if (!g_utf8_validate(text.data(), gssize(text.size()), &end))
    return text.size();
  size_t units = 0;
  for (const char* p = text.data(); p < text.data() + text.size(); p = g_utf8_next_char(p))
    units += g_utf8_get_char(p) > 0xFFFF ? 2 : 1;
  return units;
}

namespace {
bool Disguises(gunichar c) {
  switch (g_unichar_type(c)) {
  case G_UNICODE_CONTROL:
  case G_UNICODE_FORMAT:
  case G_UNICODE_LINE_SEPARATOR:
  case G_UNICODE_PARAGRAPH_SEPARATOR:
    return true;
  default:
    return false;
  }
}

std::string Escape(gunichar c) {
  switch (c) {
  case '\n':
    return "\\n";
  case '\r':
    return "\\r";
  case '\t':
    return "\\t";
  default:
    break;
  }
  char buffer[16];
  if (c < 0x80)
    g_snprintf(buffer, sizeof buffer, "\\x%02x", c);
  else
    g_snprintf(buffer, sizeof buffer, "\\u{%04x}", c);
  return buffer;
}
} // namespace

std::string ShortenedText(const std::string& text, size_t max_characters) {
  size_t characters = 0;
  const char* p = text.data();
  const char* end = text.data() + text.size();
  while (p < end && characters < max_characters) {
    ++characters;
    gunichar c = g_utf8_get_char_validated(p, end - p);
    p = (c == gunichar(-1) || c == gunichar(-2)) ? p + 1 : g_utf8_next_char(p);
  }
  return std::string(text.data(), size_t(p - text.data()));
}

std::string LogEscapedText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  const char* p = text.data();
  const char* end = text.data() + text.size();
  while (p < end) {
    unsigned char byte = static_cast<unsigned char>(*p);
    if (byte >= 0x20 && byte < 0x7f) {
      // Plain ASCII, the common case: itself, the backslash doubled.
      if (byte == '\\')
        result += '\\';
      result += char(byte);
      ++p;
      continue;
    }
    gunichar c = g_utf8_get_char_validated(p, end - p);
    if (c == gunichar(-1) || c == gunichar(-2)) {
      // Not UTF-8: the byte itself, escaped.
      char buffer[8];
      g_snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned char>(*p));
      result += buffer;
      ++p;
      continue;
    }
    const char* next = g_utf8_next_char(p);
    if (Disguises(c))
      result += Escape(c);
    else
      result.append(p, next);
    p = next;
  }
  return result;
}

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

std::string NewUpperCaseUuid() {
  GCharPtr uuid(g_uuid_string_random());
  std::string text = uuid.str();
  for (char& c : text)
    c = g_ascii_toupper(c);
  return text;
}

bool IsValidUtf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned char* end = p + bytes.size();
  while (p < end) {
    // Runs of ASCII, eight bytes at a time.
    while (end - p >= 8) {
      uint64_t word;
      std::memcpy(&word, p, 8);
      if (word & 0x8080808080808080ULL)
        break;
      p += 8;
    }
    if (p >= end)
      break;
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t length;
    uint32_t lowest;
    uint32_t code;
    if ((c & 0xE0) == 0xC0) {
      length = 2;
      lowest = 0x80;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      lowest = 0x800;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      lowest = 0x10000;
      code = c & 0x07;
    } else {
      return false;
    }
    if (size_t(end - p) < length)
      return false;
    for (size_t i = 1; i < length; ++i) {
      if ((p[i] & 0xC0) != 0x80)
        return false;
      code = (code << 6) | (p[i] & 0x3F);
    }
    if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
      return false;
    p += length;
  }
  return true;
}

} // namespace orvane
