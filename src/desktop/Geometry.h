// Points and rectangles in the desktop space Orvane works in: origin at the
// bottom left of the primary screen, y growing upwards.
#pragma once

#include <string>

namespace orvane {

struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  double minX() const { return x; }
  double minY() const { return y; }
  double maxX() const { return x + width; }
  double maxY() const { return y + height; }
  Size size() const { return {width, height}; }
  // Minimum edges inside, maximum edges outside.
  bool contains(Point p) const { return p.x >= x && p.x < maxX() && p.y >= y && p.y < maxY(); }
  bool operator==(const Rect&) const = default;
};

// A number in its shortest form: "0", "1440", "72.5".
std::string NumberText(double value);
// "{x, y}"
std::string PointText(Point p);
// "{{x, y}, {w, h}}"
std::string RectText(const Rect& r);
// "x y w h" of a frame, and back; a frame without area does not parse.
std::string FrameString(const Rect& frame);
bool ParseFrameString(const std::string& text, Rect* frame);

} // namespace orvane
