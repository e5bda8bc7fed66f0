#include "desktop/kwin/KWinWindows.h"

#include "desktop/ApplicationNames.h"

#include "base/SparLog.h"
#include "desktop/ProcessDocuments.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <signal.h>
#include <system_error>

namespace orvane {

namespace {

// Most windows a list answer may hold.
constexpr size_t kMaxWindows = 10000;

const char* const kFrontBody = R"JS(
      var c = active();
      return c ? describe(c) : null;)JS";

const char* const kListBody = R"JS(
      var list = windows(), out = [];
      for (var i = 0; i < list.length; ++i)
        out.push(describe(list[i]));
      return out;)JS";

bool ProcessExists(int pid) {
  return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

std::optional<Rect> Primary(const ScriptAnswer& answer) {
  if (answer.screens.empty())
    return std::nullopt;
  return answer.screens.front();
}

void LogRefused(const std::string& why) {
  SparLog("kwin: a window answer was refused: %@", why);
}

} // namespace

WindowInfo WindowInfoFromKWin(const KWinWindow& window, unsigned long id,
                              const std::optional<Rect>& primary) {
  WindowInfo info;
  info.id = id;
  info.pid = window.pid;
  info.normal = window.normal;
  info.title = window.caption;
  info.wm_instance = window.resource_name;
  info.wm_class = window.resource_class;
  if (window.frame && primary)
    info.frame = DesktopRectFromKWin(*window.frame, *primary);
  info.full_screen = window.full_screen;
  return info;
}

std::optional<FrontWindow> KWinFrontWindows::frontWindow() const {
  std::optional<ScriptAnswer> answer = scripting_.query(kFrontBody);
  if (!answer || answer->result.is_null())
    return std::nullopt;
  std::string why;
  std::optional<KWinWindow> window = ParseKWinWindow(answer->result, why);
  if (!window) {
    LogRefused(why);
    return std::nullopt;
  }
  FrontWindow front;
  front.id = scripting_.idFor(window->internal_id);
  front.pid = window->pid;
  front.wm_instance = window->resource_name;
  front.wm_class = window->resource_class;
  front.title = window->caption;
  std::optional<Rect> primary = Primary(*answer);
  if (window->frame && primary)
    front.frame = DesktopRectFromKWin(*window->frame, *primary);
  return front;
}

std::optional<std::vector<KWinWindow>> ParseKWinWindowList(const ScriptAnswer& answer,
                                                           size_t& left_out, std::string& why) {
  left_out = 0;
  if (!answer.result.is_array() || answer.result.size() > kMaxWindows) {
    why = "a window list that is not a list of at most " + std::to_string(kMaxWindows);
    return std::nullopt;
  }
  if (answer.screens.empty()) {
    why = "a window list without the screens";
    return std::nullopt;
  }
  std::vector<KWinWindow> windows;
  for (const auto& item : answer.result) {
    std::optional<KWinWindow> window = ParseKWinWindow(item, why);
    if (window)
      windows.push_back(std::move(*window));
    else
      ++left_out;
  }
  return windows;
}

std::optional<std::vector<KWinWindow>> KWinWindows::describedWindows(std::optional<Rect>& primary) {
  std::optional<ScriptAnswer> answer = scripting_.query(kListBody);
  if (!answer)
    return std::nullopt;
  size_t left_out = 0;
  std::string why;
  std::optional<std::vector<KWinWindow>> windows = ParseKWinWindowList(*answer, left_out, why);
  if (!windows)
    LogRefused(why);
  else if (left_out > 0)
    SparLog("kwin: %lu window(s) of a window list were left out: %@", (unsigned long)left_out, why);
  primary = Primary(*answer);
  return windows;
}

std::optional<std::vector<WindowInfo>> KWinWindows::allWindows() {
  std::optional<Rect> primary;
  std::optional<std::vector<KWinWindow>> windows = describedWindows(primary);
  if (!windows)
    return std::nullopt;
  std::vector<WindowInfo> result;
  for (const KWinWindow& window : *windows)
    result.push_back(WindowInfoFromKWin(window, scripting_.idFor(window.internal_id), primary));
  return result;
}

std::optional<std::vector<WindowInfo>> KWinWindows::windowsOfPid(int pid) {
  if (pid <= 0)
    return std::nullopt;
  std::optional<std::vector<WindowInfo>> all = allWindows();
  if (!all)
    return std::nullopt;
  std::vector<WindowInfo> result;
  for (WindowInfo& window : *all)
    if (window.pid == pid)
      result.push_back(std::move(window));
  if (result.empty() && !ProcessExists(pid))
    return std::nullopt;
  return result;
}

std::vector<WindowInfo> KWinWindows::normalWindows() {
  std::vector<WindowInfo> result;
  if (std::optional<std::vector<WindowInfo>> all = allWindows())
    for (WindowInfo& window : *all)
      if (window.normal)
        result.push_back(std::move(window));
  return result;
}

std::optional<ScriptAnswer> KWinWindows::onWindow(unsigned long id, const std::string& body) {
  std::optional<std::string> internal_id = scripting_.internalIdOf(id);
  if (!internal_id)
    return std::nullopt;
  std::string text = "      var c = find(" + ScriptString(*internal_id) + ");\n" +
                     "      if (!c)\n        return null;\n" + body;
  std::optional<ScriptAnswer> answer = scripting_.query(text);
  if (!answer || answer->result.is_null())
    return std::nullopt;
  return answer;
}

std::optional<WindowInfo> KWinWindows::window(unsigned long id) {
  std::optional<ScriptAnswer> answer = onWindow(id, "      return describe(c);");
  if (!answer)
    return std::nullopt;
  std::string why;
  std::optional<KWinWindow> window = ParseKWinWindow(answer->result, why);
  if (!window) {
    LogRefused(why);
    return std::nullopt;
  }
  return WindowInfoFromKWin(*window, id, Primary(*answer));
}

bool KWinWindows::setFrame(unsigned long id, const Rect& frame) {
  std::optional<std::string> x = ScriptNumber(std::round(frame.x));
  std::optional<std::string> y = ScriptNumber(std::round(frame.y));
  std::optional<std::string> width = ScriptNumber(std::max(1.0, std::round(frame.width)));
  std::optional<std::string> height = ScriptNumber(std::max(1.0, std::round(frame.height)));
  if (!x || !y || !width || !height) {
    SparLog("kwin: a frame of numbers that are not finite was not applied");
    return false;
  }
  // Desktop coordinates become KWin's with screen 0 as the primary.
  std::string body = "      var p = area(KWin.FullScreenArea, outputs()[0]);\n"
                     "      var allowed = !!c.moveable && !!c.resizeable;\n"
                     "      if (c.setMaximize)\n        c.setMaximize(false, false);\n"
                     "      c.frameGeometry = {x: " +
                     *x + " + p.x, y: p.y + p.height - (" + *y + " + " + *height +
                     "), width: " + *width + ", height: " + *height + "};\n" +
                     "      return {allowed: allowed};";
  std::optional<ScriptAnswer> answer = onWindow(id, body);
  if (!answer)
    return false;
  auto allowed = answer->result.is_object() ? answer->result.find("allowed") : answer->result.end();
  return allowed != answer->result.end() && allowed->is_boolean() && allowed->get<bool>();
}

bool KWinWindows::activate(unsigned long id, uint32_t) {
  std::optional<ScriptAnswer> answer = onWindow(id, "      if (c.minimized)\n"
                                                    "        c.minimized = false;\n"
                                                    "      activate(c);\n"
                                                    "      return true;");
  return answer && answer->result.is_boolean() && answer->result.get<bool>();
}

bool KWinWindows::leaveFullScreen(unsigned long id) {
  std::optional<ScriptAnswer> answer =
      onWindow(id, "      var allowed = c.fullScreenable !== false;\n"
                   "      c.fullScreen = false;\n"
                   "      return {allowed: allowed};");
  if (!answer || !answer->result.is_object())
    return false;
  auto allowed = answer->result.find("allowed");
  return allowed != answer->result.end() && allowed->is_boolean() && allowed->get<bool>();
}

std::vector<int> KWinWindows::pidsOfApplication(const std::string& name) {
  if (name.empty())
    return {};
  std::optional<Rect> primary;
  std::optional<std::vector<KWinWindow>> windows = describedWindows(primary);
  if (!windows)
    return {};
  std::vector<NamedWindow> named;
  for (const KWinWindow& window : *windows)
    if (window.normal)
      named.push_back(
          {window.pid, {window.resource_class, window.resource_name, window.desktop_file_name}});
  return PidsOfApplication(name, named);
}

std::vector<std::string> KWinWindows::documentsOfPid(int pid) {
  return PdfFilesOfProcess(pid);
}

} // namespace orvane
