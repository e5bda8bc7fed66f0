#include "web/LibraryWindow.h"

#include "base/Settings.h"
#include "base/SparLog.h"
#include "web/DevServer.h"
#include "web/ServerFailurePage.h"

namespace orvane {

LibraryWindow::LibraryWindow(GtkApplication* application, std::shared_ptr<WebPage> page,
                             Scheduler& scheduler, OwnWindows& own_windows)
    : page_(std::move(page)), scheduler_(scheduler), own_windows_(own_windows) {
  window_ = GTK_WINDOW(gtk_application_window_new(application));
  g_object_ref_sink(window_);
  gtk_window_set_title(window_, "Orvane");
  gtk_window_set_role(window_, "library");
  own_windows_.track(window_);
  gtk_window_set_default_size(window_, kLibraryWidth, kLibraryHeight);
  GdkGeometry hints = {};
  hints.min_width = kLibraryMinWidth;
  hints.min_height = kLibraryMinHeight;
  gtk_window_set_geometry_hints(window_, nullptr, &hints, GDK_HINT_MIN_SIZE);
  gtk_application_window_set_show_menubar(GTK_APPLICATION_WINDOW(window_), TRUE);
  gtk_container_add(GTK_CONTAINER(window_), page_->widget());
  gtk_widget_show(page_->widget());

  Rect saved;
  if (!ParseFrameString(Settings::standard().stringForKey(kLibraryFrameKey).value_or(""), &saved))
    gtk_window_set_position(window_, GTK_WIN_POS_CENTER);

  g_signal_connect(window_, "delete-event",
                   G_CALLBACK(+[](GtkWidget* widget, GdkEvent*, gpointer) -> gboolean {
                     gtk_widget_hide(widget);
                     return TRUE;
                   }),
                   nullptr);
  // The saved frame is applied once the window manager has framed the
  // window, when the decorations are known.
  g_signal_connect(window_, "map-event",
                   G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer data) -> gboolean {
                     static_cast<LibraryWindow*>(data)->restoreFrame();
                     return FALSE;
                   }),
                   this);
  g_signal_connect(window_, "configure-event",
                   G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer data) -> gboolean {
                     static_cast<LibraryWindow*>(data)->scheduleFrameSave();
                     return FALSE;
                   }),
                   this);
}

LibraryWindow::~LibraryWindow() {
  if (save_timer_)
    scheduler_.cancel(save_timer_);
  gtk_widget_destroy(GTK_WIDGET(window_));
  g_object_unref(window_);
}

void LibraryWindow::restoreFrame() {
  if (frame_restored_)
    return;
  frame_restored_ = true;
  Rect saved;
  if (ParseFrameString(Settings::standard().stringForKey(kLibraryFrameKey).value_or(""), &saved))
    own_windows_.setFrame(window_, saved);
}

void LibraryWindow::scheduleFrameSave() {
  if (!frame_restored_)
    return;
  // A drag sends a stream of configure events; the frame is written once it
  // has been still for a moment.
  if (save_timer_)
    scheduler_.cancel(save_timer_);
  save_timer_ = scheduler_.after(0.5, [this] {
    save_timer_ = 0;
    if (gtk_widget_get_mapped(GTK_WIDGET(window_)))
      Settings::standard().setString(kLibraryFrameKey, FrameString(own_windows_.frame(window_)));
  });
}

void LibraryWindow::showLibraryWindow() {
  std::string site = SiteAddress();
  ServerOutcome outcome = EnsureServer(site, ProjectDirectory());
  bool site_shown = page_->hasLoadedAnything() && !showing_server_failure_;
  if (outcome == ServerOutcome::NoAnswer) {
    SparLog("development server: no answer at %@ after its start — see %@", site,
            std::string(kServerLogPath));
    if (!site_shown) {
      // Loaded as a document of its own (about:blank), never under the
      // site's address: the bridge takes no message from it.
      page_->loadHtml(ServerFailurePage(site, kServerLogPath, ServerLogTail(kServerLogPath)));
      showing_server_failure_ = true;
    }
  } else if (!site_shown) {
    page_->load(site);
    showing_server_failure_ = false;
  }
  gtk_window_present(window_);
}

bool LibraryWindow::isVisible() const {
  return gtk_widget_get_visible(GTK_WIDGET(window_));
}
bool LibraryWindow::isKeyWindow() const {
  return gtk_window_is_active(window_);
}
void LibraryWindow::orderOut() {
  gtk_widget_hide(GTK_WIDGET(window_));
}

} // namespace orvane
