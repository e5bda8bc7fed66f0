// The sparring window: agent conversations about one paper, in a window of
// its own that shows the site's sparring page. Made once, hidden on close
// and reused; closing it returns to the window the user came from.
#pragma once

#include "bridge/EventDelivery.h"
#include "capture/PanelWindow.h"
#include "desktop/OwnWindows.h"
#include "desktop/Screens.h"
#include "web/LibraryWindow.h"
#include "web/WebViewFactory.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orvane {

inline constexpr int kSparMinWidth = 900;
inline constexpr int kSparMinHeight = 600;
inline constexpr char kSparTitle[] = "Agent sparring mode";

// "<base>/?sparwin=1#spar/<id>" with the id percent-encoded for a path.
std::string SparAddress(const std::string& site_address, const std::string& paper_id);
// The visible frame inset by 5 % of its width on each side and 5 % of its
// height at the top and bottom.
Rect SparTargetFrame(const Rect& visible_frame);
// The smallest content size the user may resize the window to while its
// content has the given size: 900 x 600, or less where the program itself
// made the window smaller (the chat half of a narrow screen).
Size SparMinimumSize(const Size& content);

class SparringWindow {
public:
  struct Context {
    GtkApplication* application;
    WebViewFactory& factory;
    EventDelivery& events;
    LibraryWindow& library;
    PanelWindow& panel;
    std::shared_ptr<WebPage> panel_page;
    const Screens& screens;
    OwnWindows& own_windows;
    std::function<void()> show_library;
    std::function<void()> show_panel;
  };
  explicit SparringWindow(Context context);
  ~SparringWindow();
  SparringWindow(const SparringWindow&) = delete;
  SparringWindow& operator=(const SparringWindow&) = delete;

  void openSparWindowFor(const std::string& paper_id);
  // Sets the outer frame exactly as asked, below the minimum size too: that
  // minimum only bounds the user's own resizing. Nothing without a window.
  void placeFrame(const Rect& frame);
  void closeSparWindow();
  // The bus notification: its object is the paper id.
  void sparRequested(const std::string& object);

  const std::shared_ptr<WebPage>& sparWeb() const { return spar_web_; }
  GtkWindow* gtkWindow() const { return window_; }
  bool isVisible() const;
  bool isFullScreen() const { return full_screen_; }
  bool sparFromLibrary() const { return spar_from_library_; }

private:
  void create(const Rect& frame);
  void loadFresh(const std::string& address);
  std::optional<Screen> screenOf(GtkWindow* window) const;

  Context context_;
  GtkWindow* window_ = nullptr;
  std::shared_ptr<WebPage> spar_web_;
  bool spar_from_library_ = false;
  bool full_screen_ = false;
  std::optional<std::string> pending_address_; // loaded once the empty page is in
};

} // namespace orvane
