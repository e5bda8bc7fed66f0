// The library window: the site's main page in a window of its own. Closing
// it only hides it; its frame is remembered under "LibraryWindow".
#pragma once

#include "desktop/OwnWindows.h"
#include "desktop/Scheduler.h"
#include "web/WebPage.h"

#include <functional>
#include <memory>

namespace orvane {

inline constexpr int kLibraryWidth = 1100;
inline constexpr int kLibraryHeight = 760;
inline constexpr int kLibraryMinWidth = 700;
inline constexpr int kLibraryMinHeight = 500;
inline constexpr char kLibraryFrameKey[] = "LibraryWindow";

class LibraryWindow {
public:
  LibraryWindow(GtkApplication* application, std::shared_ptr<WebPage> page, Scheduler& scheduler,
                OwnWindows& own_windows);
  ~LibraryWindow();
  LibraryWindow(const LibraryWindow&) = delete;
  LibraryWindow& operator=(const LibraryWindow&) = delete;

  // Starts the local server when the site is local, loads the site the
  // first time, and brings the window to the front with the keyboard. When
  // a started server does not answer and no page of the site is shown, the
  // window shows its own page with the server's last lines instead (and
  // tries the site again at the next show).
  void showLibraryWindow();
  bool isShowingServerFailure() const { return showing_server_failure_; }

  GtkWindow* gtkWindow() const { return window_; }
  const std::shared_ptr<WebPage>& page() const { return page_; }
  bool isVisible() const;
  bool isKeyWindow() const;
  void orderOut();

private:
  void restoreFrame();
  void scheduleFrameSave();

  GtkWindow* window_;
  std::shared_ptr<WebPage> page_;
  Scheduler& scheduler_;
  OwnWindows& own_windows_;
  Scheduler::TimerId save_timer_ = 0;
  bool frame_restored_ = false;
  bool showing_server_failure_ = false;
};

} // namespace orvane
