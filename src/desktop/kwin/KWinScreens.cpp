#include "desktop/kwin/KWinScreens.h"

#include "base/SparLog.h"

#include <cmath>

namespace orvane {

namespace {

// Each screen's work area (without panels) and the pointer; the full areas
// come with every answer.
const char* const kScreensBody = R"JS(
      var areas = [], all = outputs();
      for (var i = 0; i < all.length; ++i)
        areas.push(area(KWin.MaximizeArea, all[i]));
      var p = workspace.cursorPos;
      return {areas: areas, pointer: {x: Number(p.x), y: Number(p.y)}};)JS";

std::optional<double> Coordinate(const nlohmann::json& object, const char* name) {
  auto it = object.find(name);
  if (it == object.end() || !it->is_number())
    return std::nullopt;
  double value = it->get<double>();
  if (!std::isfinite(value) || std::fabs(value) > 1e6)
    return std::nullopt;
  return value;
}

} // namespace

std::optional<KWinScreenAnswer> ParseKWinScreens(const ScriptAnswer& answer, std::string& why) {
  const nlohmann::json& result = answer.result;
  if (answer.screens.empty() || !result.is_object()) {
    why = "a screen answer without screens";
    return std::nullopt;
  }
  auto areas = result.find("areas");
  auto pointer = result.find("pointer");
  if (areas == result.end() || !areas->is_array() || areas->size() != answer.screens.size() ||
      pointer == result.end() || !pointer->is_object()) {
    why = "a malformed screen answer";
    return std::nullopt;
  }
  std::optional<double> x = Coordinate(*pointer, "x"), y = Coordinate(*pointer, "y");
  if (!x || !y) {
    why = "a screen answer with a malformed pointer";
    return std::nullopt;
  }
  const Rect& primary = answer.screens.front();
  KWinScreenAnswer parsed;
  for (size_t i = 0; i < answer.screens.size(); ++i) {
    std::optional<Rect> area = ParseKWinRect((*areas)[i]);
    if (!area) {
      why = "a screen answer with a malformed work area";
      return std::nullopt;
    }
    parsed.screens.push_back(Screen{int(i), DesktopRectFromKWin(answer.screens[i], primary),
                                    DesktopRectFromKWin(*area, primary)});
  }
  parsed.pointer = {*x - primary.x, primary.y + primary.height - *y};
  return parsed;
}

std::optional<KWinScreenAnswer> KWinScreens::ask() const {
  std::optional<ScriptAnswer> answer = scripting_.query(kScreensBody);
  if (!answer)
    return std::nullopt;
  std::string why;
  std::optional<KWinScreenAnswer> parsed = ParseKWinScreens(*answer, why);
  if (!parsed)
    SparLog("kwin: a screen answer was refused: %@", why);
  return parsed;
}

std::vector<Screen> KWinScreens::screens() const {
  std::optional<KWinScreenAnswer> answer = ask();
  return answer ? answer->screens : std::vector<Screen>{};
}

Point KWinScreens::mouseLocation() const {
  std::optional<KWinScreenAnswer> answer = ask();
  return answer ? answer->pointer : Point{};
}

} // namespace orvane
