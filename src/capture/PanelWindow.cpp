#include "capture/PanelWindow.h"

namespace orvane {

PanelWindow::PanelWindow(GtkApplication* application, GtkWidget* content, OwnWindows& own_windows)
    : own_windows_(own_windows) {
  window_ = GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL));
  g_object_ref_sink(window_);
  if (application)
    gtk_window_set_application(window_, application);
  gtk_window_set_title(window_, "Orvane");
  gtk_window_set_role(window_, "quick-panel");
  own_windows_.track(window_);
  gtk_window_set_type_hint(window_, GDK_WINDOW_TYPE_HINT_UTILITY);
  gtk_window_set_keep_above(window_, TRUE);
  gtk_window_stick(window_);
  gtk_window_set_skip_taskbar_hint(window_, TRUE);
  gtk_window_set_skip_pager_hint(window_, TRUE);
  gtk_window_set_default_size(window_, kPanelWidth, kPanelHeight);
  gtk_window_set_position(window_, GTK_WIN_POS_CENTER);
  own_windows_.makePanel(window_);
  gtk_container_add(GTK_CONTAINER(window_), content);
  gtk_widget_show(content);
  // Realized now, and mapped only when summoned. A web view whose window
  // was never realized has no display to pace its page by: WebKit then
  // drives the page's rendering updates from a timer at 60 per second, for
  // seconds, while nothing is on the screen.
  gtk_widget_realize(GTK_WIDGET(window_));

  // The close button and Escape hide the panel; it lives for the whole run.
  g_signal_connect(window_, "delete-event",
                   G_CALLBACK(+[](GtkWidget* widget, GdkEvent*, gpointer) -> gboolean {
                     gtk_widget_hide(widget);
                     return TRUE;
                   }),
                   nullptr);
  g_signal_connect(window_, "key-press-event",
                   G_CALLBACK(+[](GtkWidget* widget, GdkEventKey* event, gpointer) -> gboolean {
                     if (event->keyval != GDK_KEY_Escape)
                       return FALSE;
                     gtk_widget_hide(widget);
                     return TRUE;
                   }),
                   nullptr);
}

PanelWindow::~PanelWindow() {
  gtk_widget_destroy(GTK_WIDGET(window_));
  g_object_unref(window_);
}

void PanelWindow::orderOut() {
  ++presentation_;
  gtk_widget_hide(GTK_WIDGET(window_));
}

void PanelWindow::makeKeyAndOrderFront(uint32_t timestamp) {
  // Sticky and keep-above must be asked for again after a hide on some
  // window managers; asked before mapping, they are part of the map.
  gtk_window_stick(window_);
  gtk_window_set_keep_above(window_, TRUE);
  // A hidden panel is mapped with the key press's time as its user time;
  // a shown one is raised and asked to take the keyboard.
  gtk_window_present_with_time(window_, timestamp);
  // Mapping alone may leave the keyboard where it was: focus-stealing
  // prevention weighs the map against the user's latest input in another
  // window (the hotkey's own modifier press), and an activation request
  // that reaches the window manager before it manages the window is
  // dropped. So once the panel is framed on the screen, and still without
  // the keyboard, activation is asked for as the user's.
  unsigned presentation = ++presentation_;
  own_windows_.whenOnScreen(window_, [this, presentation, timestamp] {
    if (presentation != presentation_ || !isVisible() || own_windows_.hasInputFocus(window_))
      return;
    own_windows_.requestActivation(window_, timestamp);
  });
}

bool PanelWindow::isVisible() const {
  return gtk_widget_get_visible(GTK_WIDGET(window_));
}
bool PanelWindow::isKeyWindow() const {
  // Asked of the desktop too: while a hotkey's grab is active GTK reports
  // every window as inactive.
  return gtk_window_is_active(window_) || own_windows_.hasInputFocus(window_);
}
Rect PanelWindow::frame() const {
  return own_windows_.frame(window_);
}
void PanelWindow::setFrame(const Rect& frame) {
  own_windows_.setFrame(window_, frame);
}

} // namespace orvane
