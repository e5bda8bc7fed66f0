// Files dropped on the library window go where files given to the program
// go: the PDFs among them are announced to the page. The drop is taken from
// the web view before the page sees it, so that a dropped PDF never replaces
// the library page.
#pragma once

#include <functional>
#include <gtk/gtk.h>
#include <string>
#include <vector>

namespace orvane {

class WindowDrops {
public:
  using Handler = std::function<void(const std::vector<std::string>& paths)>;
  WindowDrops(GtkWidget* target, Handler handler);
  ~WindowDrops();
  WindowDrops(const WindowDrops&) = delete;
  WindowDrops& operator=(const WindowDrops&) = delete;

  // The local paths of a text/uri-list; other addresses are left out.
  static std::vector<std::string> PathsFromUris(char** uris);

private:
  static gboolean OnDragDrop(GtkWidget* widget, GdkDragContext* context, gint x, gint y, guint time,
                             gpointer self);
  static void OnDataReceived(GtkWidget* widget, GdkDragContext* context, gint x, gint y,
                             GtkSelectionData* data, guint info, guint time, gpointer self);

  GtkWidget* target_;
  Handler handler_;
  GdkDragContext* awaiting_ = nullptr; // the drop whose files were asked for
  gulong drop_handler_ = 0;
  gulong data_handler_ = 0;
};

} // namespace orvane
