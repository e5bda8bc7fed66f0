#include "capture/ScreenContainingPoint.h"

#include <algorithm>

namespace orvane {

std::optional<Screen> ScreenContainingPoint(const std::vector<Screen>& screens, Point p) {
  if (screens.empty())
    return std::nullopt;
  for (const Screen& screen : screens)
    if (screen.frame.contains(p))
      return screen;
  const Screen* nearest = nullptr;
  double best = 0;
  for (const Screen& screen : screens) {
    const Rect& f = screen.frame;
    double dx = std::max({p.x - f.maxX(), f.minX() - p.x, 0.0});
    double dy = std::max({p.y - f.maxY(), f.minY() - p.y, 0.0});
    double distance = dx * dx + dy * dy;
    if (!nearest || distance < best) {
      nearest = &screen;
      best = distance;
    }
  }
  return *nearest;
}

std::optional<Screen> ScreenOfFrame(const std::vector<Screen>& screens, const Rect& frame) {
  return ScreenContainingPoint(screens, {frame.x + frame.width / 2, frame.y + frame.height / 2});
}

} // namespace orvane
