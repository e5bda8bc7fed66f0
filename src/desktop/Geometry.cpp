#include "desktop/Geometry.h"

#include <cstdio>

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

} // namespace orvane
