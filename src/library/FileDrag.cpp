#include "library/FileDrag.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"
#include "library/PdfFiles.h"

namespace orvane {

FileDrag::~FileDrag() {
  disconnect();
}

void FileDrag::disconnect() {
  if (source_) {
    g_signal_handler_disconnect(source_, data_handler_);
    g_signal_handler_disconnect(source_, end_handler_);
    g_object_unref(source_);
  }
  source_ = nullptr;
  context_ = nullptr;
}

void FileDrag::beginFileDrag(const std::string& path, GtkWidget* source) {
  // Any file the page names, wherever it lives: a link to one counts too
  // (FileExists speaks only of the library's own files).
  if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
    SparLog("dragFile: no file at %@", path);
    return;
  }
  if (!source || !gtk_widget_get_realized(source))
    return;
  disconnect();
  GCharPtr uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  uri_ = uri.str();
  source_ = GTK_WIDGET(g_object_ref(source));
  // The web view answers its own page drags; these handlers run first and
  // answer only for the drag started here.
  data_handler_ = g_signal_connect(source, "drag-data-get", G_CALLBACK(OnDragDataGet), this);
  end_handler_ = g_signal_connect(source, "drag-end", G_CALLBACK(OnDragEnd), this);

  GtkTargetList* targets = gtk_target_list_new(nullptr, 0);
  gtk_target_list_add_uri_targets(targets, 0);
  // The pressed button's event when there is one; otherwise GTK takes the
  // pointer as it is, still held from the page's drag gesture.
  GdkEvent* event = gtk_get_current_event();
  bool usable = event && (event->type == GDK_BUTTON_PRESS || event->type == GDK_MOTION_NOTIFY);
  SparLog("dragFile: %@", FileName(path));
  context_ = gtk_drag_begin_with_coordinates(source, targets, GDK_ACTION_COPY, 1,
                                             usable ? event : nullptr, -1, -1);
  if (context_)
    gtk_drag_set_icon_name(context_, "application-pdf", 16, 16);
  if (event)
    gdk_event_free(event);
  gtk_target_list_unref(targets);
}

void FileDrag::OnDragDataGet(GtkWidget* widget, GdkDragContext* context, GtkSelectionData* data,
                             guint, guint, gpointer self) {
  auto* drag = static_cast<FileDrag*>(self);
  if (context != drag->context_)
    return;
  const gchar* uris[] = {drag->uri_.c_str(), nullptr};
  gtk_selection_data_set_uris(data, const_cast<gchar**>(uris));
  g_signal_stop_emission_by_name(widget, "drag-data-get");
}

void FileDrag::OnDragEnd(GtkWidget*, GdkDragContext* context, gpointer self) {
  auto* drag = static_cast<FileDrag*>(self);
  if (context == drag->context_)
    drag->context_ = nullptr;
}

} // namespace orvane
