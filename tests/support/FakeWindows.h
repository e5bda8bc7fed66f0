// A window list that a test arranges: windows with pids, types, titles and
// frames; the frames, activations and full-screen changes asked for are
// recorded, and setFrame moves the window unless the test made it refuse.
#pragma once

#include "desktop/Launcher.h"
#include "desktop/Windows.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace orvane {

class FakeWindows final : public Windows {
public:
  struct FrameWrite {
    unsigned long id;
    Rect frame;
    bool operator==(const FrameWrite&) const = default;
  };

  // The arranged state.
  std::vector<WindowInfo> list;
  // Processes that exist although they have no window.
  std::set<int> live_pids;
  // Windows whose window manager refuses moves and resizes.
  std::set<unsigned long> refusing;
  // Application names (desktop-file ids, WM_CLASS parts) to their pids.
  std::map<std::string, std::vector<int>> applications;
  // What each process names or holds open.
  std::map<int, std::vector<std::string>> documents;
  // No display: no process can be addressed.
  bool no_display = false;

  // What was asked.
  std::vector<FrameWrite> frame_writes;
  std::vector<unsigned long> activations;
  std::vector<unsigned long> full_screen_exits;

  // Adds a window and answers its id.
  unsigned long add(int pid, const std::string& title, const Rect& frame, bool normal = true) {
    WindowInfo info;
    info.id = next_id_++;
    info.pid = pid;
    info.normal = normal;
    info.title = title;
    info.frame = frame;
    list.push_back(info);
    return info.id;
  }
  WindowInfo* find(unsigned long id) {
    auto it =
        std::find_if(list.begin(), list.end(), [&](const WindowInfo& w) { return w.id == id; });
    return it == list.end() ? nullptr : &*it;
  }

  std::optional<std::vector<WindowInfo>> windowsOfPid(int pid) override {
    if (no_display || pid <= 0)
      return std::nullopt;
    std::vector<WindowInfo> result;
    for (const auto& w : list)
      if (w.pid == pid)
        result.push_back(w);
    if (result.empty() && !live_pids.count(pid))
      return std::nullopt;
    return result;
  }
  std::vector<WindowInfo> normalWindows() override {
    std::vector<WindowInfo> result;
    if (no_display)
      return result;
    for (const auto& w : list)
      if (w.normal)
        result.push_back(w);
    return result;
  }
  std::optional<WindowInfo> window(unsigned long id) override {
    if (WindowInfo* w = find(id))
      return *w;
    return std::nullopt;
  }
  bool setFrame(unsigned long id, const Rect& frame) override {
    frame_writes.push_back({id, frame});
    WindowInfo* w = find(id);
    if (!w || refusing.count(id))
      return false;
    w->frame = frame;
    return true;
  }
  bool activate(unsigned long id, uint32_t) override {
    activations.push_back(id);
    return find(id) != nullptr;
  }
  bool leaveFullScreen(unsigned long id) override {
    full_screen_exits.push_back(id);
    WindowInfo* w = find(id);
    if (!w || refusing.count(id))
      return false;
    w->full_screen = false;
    return true;
  }
  std::vector<int> pidsOfApplication(const std::string& name) override {
    auto it = applications.find(name);
    return it == applications.end() ? std::vector<int>{} : it->second;
  }
  std::vector<std::string> documentsOfPid(int pid) override {
    auto it = documents.find(pid);
    return it == documents.end() ? std::vector<std::string>{} : it->second;
  }

private:
  unsigned long next_id_ = 0x400001;
};

// A launcher that records what it was asked and answers when the test says.
class FakeLauncher final : public Launcher {
public:
  struct Request {
    std::string what; // "file", "application", "viewer", "reveal"
    std::string path;
    Completion completion;
  };
  std::vector<Request> requests;

  void openFile(const std::string& path, Completion completion) override {
    requests.push_back({"file", path, std::move(completion)});
  }
  void openApplication(const std::string& application, Completion completion) override {
    requests.push_back({"application", application, std::move(completion)});
  }
  void openWithViewer(const std::string& path, Completion completion) override {
    requests.push_back({"viewer", path, std::move(completion)});
  }
  void reveal(const std::string& path, Completion completion) override {
    requests.push_back({"reveal", path, std::move(completion)});
  }
  // Answers the oldest request that has not been answered.
  void answer(LaunchOutcome outcome) {
    for (auto& request : requests)
      if (request.completion) {
        auto completion = std::move(request.completion);
        request.completion = nullptr;
        completion(std::move(outcome));
        return;
      }
  }
};

} // namespace orvane
