// Dragging a local file out of a page into another application: a GTK drag
// from the web view that offers the file as text/uri-list.
#pragma once

#include <gtk/gtk.h>
#include <string>

namespace orvane {

class FileDrag {
public:
  FileDrag() = default;
  ~FileDrag();
  FileDrag(const FileDrag&) = delete;
  FileDrag& operator=(const FileDrag&) = delete;

  // Starts a copy drag of the file from the widget at the pointer.
  void beginFileDrag(const std::string& path, GtkWidget* source);

private:
  static void OnDragDataGet(GtkWidget*, GdkDragContext* context, GtkSelectionData* data, guint,
                            guint, gpointer self);
  static void OnDragEnd(GtkWidget*, GdkDragContext* context, gpointer self);
  void disconnect();

  GtkWidget* source_ = nullptr;
  GdkDragContext* context_ = nullptr;
  std::string uri_;
  gulong data_handler_ = 0;
  gulong end_handler_ = 0;
};

} // namespace orvane
