#include "agent/SparringWindow.h"

#include "base/Settings.h"
#include "base/SparLog.h"
#include "capture/ScreenContainingPoint.h"

#include <algorithm>

namespace orvane {

namespace {
// The characters a URL path may hold as they are.
bool PathAllowed(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::string_view("!$&'()*+,-./:;=@_~").find(char(c)) != std::string_view::npos;
}
} // namespace

std::string SparAddress(const std::string& site_address, const std::string& paper_id) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : paper_id) {
    if (PathAllowed(c)) {
      encoded += char(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 0xF];
    }
  }
  return StripTrailingSlashes(site_address) + "/?sparwin=1#spar/" + encoded;
}

Rect SparTargetFrame(const Rect& vf) {
  double dx = vf.width * 0.05, dy = vf.height * 0.05;
  return {vf.x + dx, vf.y + dy, vf.width - 2 * dx, vf.height - 2 * dy};
}

Size SparMinimumSize(const Size& content) {
  return {std::max(1.0, std::min(double(kSparMinWidth), content.width)),
          std::max(1.0, std::min(double(kSparMinHeight), content.height))};
}

SparringWindow::SparringWindow(Context context) : context_(std::move(context)) {}

SparringWindow::~SparringWindow() {
  if (window_) {
    gtk_widget_destroy(GTK_WIDGET(window_));
    g_object_unref(window_);
  }
}

bool SparringWindow::isVisible() const {
  return window_ && gtk_widget_get_visible(GTK_WIDGET(window_));
}

std::optional<Screen> SparringWindow::screenOf(GtkWindow* window) const {
  if (!window)
    return std::nullopt;
  return ScreenOfFrame(context_.screens.screens(), context_.own_windows.frame(window));
}

void SparringWindow::create(const Rect& frame) {
  spar_web_ = context_.factory.makeWebView();
  window_ = GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL));
  g_object_ref_sink(window_);
  gtk_window_set_application(window_, context_.application);
  gtk_window_set_title(window_, kSparTitle);
  gtk_window_set_role(window_, "sparring");
  context_.own_windows.track(window_);
  gtk_window_set_default_size(window_, int(frame.width), int(frame.height));
  gtk_container_add(GTK_CONTAINER(window_), spar_web_->widget());
  gtk_widget_show(spar_web_->widget());
  placeFrame(frame);
  // The close button closes the conversation; the window lives on for reuse.
  g_signal_connect(window_, "delete-event",
                   G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer data) -> gboolean {
                     static_cast<SparringWindow*>(data)->closeSparWindow();
                     return TRUE;
                   }),
                   this);
  // After the empty page that makes a reopen a fresh load, the page itself.
  spar_web_->onLoadFinished([this] {
    std::string shown = spar_web_->currentAddress();
    if (!pending_address_ || !(shown.empty() || shown == "about:blank"))
      return;
    spar_web_->load(*std::exchange(pending_address_, std::nullopt));
  });
  g_signal_connect(
      window_, "window-state-event",
      G_CALLBACK(+[](GtkWidget*, GdkEventWindowState* event, gpointer data) -> gboolean {
        static_cast<SparringWindow*>(data)->full_screen_ =
            event->new_window_state & GDK_WINDOW_STATE_FULLSCREEN;
        return FALSE;
      }),
      this);
}

void SparringWindow::openSparWindowFor(const std::string& paper_id) {
  spar_from_library_ = context_.library.isKeyWindow();
  std::optional<Screen> screen =
      screenOf(spar_from_library_ ? context_.library.gtkWindow() : context_.panel.gtkWindow());
  if (!screen) {
    std::vector<Screen> all = context_.screens.screens();
    if (!all.empty())
      screen = all.front();
  }
  Rect target = screen ? SparTargetFrame(screen->visibleFrame) : Rect{0, 0, 1100, 760};

  bool created = false;
  if (!window_) {
    create(target);
    created = true;
  }
  std::optional<Screen> current = screenOf(window_);
  bool move = !created && screen && (!current || current->index != screen->index) && !full_screen_;

  loadFresh(SparAddress(SiteAddress(), paper_id));
  context_.panel.orderOut();
  gtk_window_present(window_);
  // The frame is set once the window manager has framed the window, so that
  // the frame, decorations included, is the one asked for.
  std::string screen_text = screen ? RectText(screen->frame) : std::string("(none)");
  bool place = move || created;
  context_.own_windows.whenOnScreen(window_, [this, place, target, screen_text] {
    if (place)
      placeFrame(target);
    SparLog("spar window -> screen %@ frame %@", screen_text,
            RectText(place ? target : context_.own_windows.frame(window_)));
  });
}

void SparringWindow::placeFrame(const Rect& frame) {
  if (!window_)
    return;
  // The minimum goes first, so that the window manager and GTK accept the
  // size that follows.
  Size minimum = SparMinimumSize(context_.own_windows.contentSizeOfFrame(window_, frame));
  GdkGeometry hints = {};
  hints.min_width = int(minimum.width);
  hints.min_height = int(minimum.height);
  gtk_window_set_geometry_hints(window_, nullptr, &hints, GDK_HINT_MIN_SIZE);
  context_.own_windows.setFrame(window_, frame);
}

void SparringWindow::loadFresh(const std::string& address) {
  // A load that differs from the shown page only in its fragment would not
  // reload the page; going through an empty page makes every open a fresh
  // load of the sparring page.
  std::string current = spar_web_->currentAddress();
  if (current.empty() || current == "about:blank") {
    spar_web_->load(address);
    return;
  }
  pending_address_ = address;
  spar_web_->loadBlank();
}

void SparringWindow::closeSparWindow() {
  if (!window_)
    return;
  if (full_screen_)
    gtk_window_unfullscreen(window_);
  pending_address_.reset();
  spar_web_->loadBlank();
  gtk_widget_hide(GTK_WIDGET(window_));
  if (context_.events.primaryWeb() == spar_web_)
    context_.events.setPrimaryWeb(spar_from_library_ ? context_.library.page()
                                                     : context_.panel_page);
  if (spar_from_library_)
    context_.show_library();
  else
    context_.show_panel();
  SparLog("spar window closed");
}

void SparringWindow::sparRequested(const std::string& object) {
  if (object.empty()) {
    SparLog("spar note: no paper id");
    return;
  }
  SparLog("spar note: %@", object);
  openSparWindowFor(object);
}

} // namespace orvane
