#include "library/WindowDrops.h"

#include "base/GObjectPtr.h"

namespace orvane {

WindowDrops::WindowDrops(GtkWidget* target, Handler handler)
    : target_(GTK_WIDGET(g_object_ref(target))), handler_(std::move(handler)) {
  drop_handler_ = g_signal_connect(target_, "drag-drop", G_CALLBACK(OnDragDrop), this);
  data_handler_ = g_signal_connect(target_, "drag-data-received", G_CALLBACK(OnDataReceived), this);
}

WindowDrops::~WindowDrops() {
  g_signal_handler_disconnect(target_, drop_handler_);
  g_signal_handler_disconnect(target_, data_handler_);
  g_object_unref(target_);
}

std::vector<std::string> WindowDrops::PathsFromUris(char** uris) {
  std::vector<std::string> paths;
  for (char** uri = uris; uri && *uri; ++uri) {
    GCharPtr path(g_filename_from_uri(*uri, nullptr, nullptr));
    if (path)
      paths.push_back(path.str());
  }
  return paths;
}

gboolean WindowDrops::OnDragDrop(GtkWidget* widget, GdkDragContext* context, gint, gint, guint time,
                                 gpointer self) {
  auto* drops = static_cast<WindowDrops*>(self);
  GdkAtom uri_list = gdk_atom_intern_static_string("text/uri-list");
  bool has_files = false;
  for (GList* t = gdk_drag_context_list_targets(context); t; t = t->next)
    has_files = has_files || GDK_POINTER_TO_ATOM(t->data) == uri_list;
  if (!has_files)
    return FALSE; // text and the like go to the page as usual
  drops->awaiting_ = context;
  gtk_drag_get_data(widget, context, uri_list, time);
  // Handled here: the page does not see this drop.
  return TRUE;
}

void WindowDrops::OnDataReceived(GtkWidget* widget, GdkDragContext* context, gint, gint,
                                 GtkSelectionData* data, guint, guint time, gpointer self) {
  auto* drops = static_cast<WindowDrops*>(self);
  if (context != drops->awaiting_)
    return; // the page's own drag negotiation
  drops->awaiting_ = nullptr;
  g_signal_stop_emission_by_name(widget, "drag-data-received");
  gchar** uris = gtk_selection_data_get_uris(data);
  std::vector<std::string> paths = PathsFromUris(uris);
  g_strfreev(uris);
  gtk_drag_finish(context, !paths.empty(), FALSE, time);
  if (!paths.empty())
    drops->handler_(paths);
}

} // namespace orvane
