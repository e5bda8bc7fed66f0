#include "desktop/Geometry.h"

#include <cstdio>
#include <sstream>

namespace orvane {

std::string NumberText(double value) {
  if (value == 0)
    value = 0; // no "-0"
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.12g", value);
  return buffer;
}

std::string PointText(Point p) {
  return "{" + NumberText(p.x) + ", " + NumberText(p.y) + "}";
}

std::string RectText(const Rect& r) {
  return "{{" + NumberText(r.x) + ", " + NumberText(r.y) + "}, {" + NumberText(r.width) + ", " +
         NumberText(r.height) + "}}";
}

std::string FrameString(const Rect& frame) {
  return NumberText(frame.x) + " " + NumberText(frame.y) + " " + NumberText(frame.width) + " " +
         NumberText(frame.height);
}

bool ParseFrameString(const std::string& text, Rect* frame) {
  std::istringstream in(text);
  Rect parsed;
  if (!(in >> parsed.x >> parsed.y >> parsed.width >> parsed.height))
    return false;
  if (parsed.width <= 0 || parsed.height <= 0)
    return false;
  *frame = parsed;
  return true;
}

} // namespace orvane
