/* The floor of the start-up benchmark: the least a WebKitGTK 4.1 program does
 * to show one page and answer its hello. One GtkWindow of the library
 * window's size with one WebKitWebView that loads the address it is given.
 * The page posts {action: "hello", ...} on the "panel" message channel; the
 * answer is what Orvane sends a page that said hello, a "claudeStatus" event
 * delivered by evaluating window.panelEvent(...) in the page. Then it waits
 * until it is ended.
 *
 *     orvane_startup_floor URL
 */
#include <gtk/gtk.h>
#include <string.h>
#include <webkit2/webkit2.h>

static const char kAnswer[] =
    "window.panelEvent && window.panelEvent({\"type\":\"claudeStatus\",\"path\":\"\","
    "\"sparRoot\":\"\"})";

static void on_panel_message(WebKitUserContentManager* manager, WebKitJavascriptResult* result,
                             gpointer data) {
  (void)manager;
  WebKitWebView* view = WEBKIT_WEB_VIEW(data);
  JSCValue* body = webkit_javascript_result_get_js_value(result);
  if (!body || !jsc_value_is_object(body))
    return;
  JSCValue* action = jsc_value_object_get_property(body, "action");
  char* text = action && jsc_value_is_string(action) ? jsc_value_to_string(action) : NULL;
  if (text && strcmp(text, "hello") == 0)
    webkit_web_view_evaluate_javascript(view, kAnswer, -1, NULL, NULL, NULL, NULL, NULL);
  g_free(text);
  if (action)
    g_object_unref(action);
}

int main(int argc, char** argv) {
  gtk_init(&argc, &argv);
  if (argc != 2) {
    g_printerr("usage: %s URL\n", argv[0]);
    return 2;
  }
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "floor");
  gtk_window_set_default_size(GTK_WINDOW(window), 1100, 760);
  g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);

  WebKitUserContentManager* content = webkit_user_content_manager_new();
  GtkWidget* view = webkit_web_view_new_with_user_content_manager(content);
  g_signal_connect(content, "script-message-received::panel", G_CALLBACK(on_panel_message), view);
  webkit_user_content_manager_register_script_message_handler(content, "panel");
  g_object_unref(content);

  gtk_container_add(GTK_CONTAINER(window), view);
  webkit_web_view_load_uri(WEBKIT_WEB_VIEW(view), argv[1]);
  gtk_widget_show_all(window);
  gtk_main();
  return 0;
}
