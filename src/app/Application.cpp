#include "app/Application.h"

#include "app/AppDelegate.h"
#include "base/BuildInfo.h"

#include <gtk/gtk.h>

namespace orvane {

namespace {

struct Run {
  std::unique_ptr<AppDelegate> delegate;
  bool launched = false;

  // The first activation (or file opening) of the primary instance is the
  // launch; later ones come from further starts of the program.
  bool launchOnce() {
    if (launched)
      return false;
    launched = true;
    delegate->applicationDidFinishLaunching();
    return true;
  }
};

} // namespace

int RunApplication(int argc, char** argv) {
  // Orvane places its own windows and reads other windows through X11;
  // under Wayland it runs through XWayland.
  gdk_set_allowed_backends("x11");
  g_set_prgname("orvane");
  g_set_application_name("Orvane");

  GtkApplication* application = gtk_application_new(kApplicationId, G_APPLICATION_HANDLES_OPEN);
  Run run;

  g_signal_connect(application, "startup", G_CALLBACK(+[](GApplication* app, gpointer data) {
                     auto* r = static_cast<Run*>(data);
                     r->delegate =
                         std::make_unique<AppDelegate>(GTK_APPLICATION(app), RealDesktopSeams());
                     // Closing every window only hides it: the program runs
                     // until Quit.
                     g_application_hold(app);
                   }),
                   &run);
  g_signal_connect(application, "activate", G_CALLBACK(+[](GApplication*, gpointer data) {
                     auto* r = static_cast<Run*>(data);
                     if (!r->launchOnce())
                       r->delegate->applicationShouldHandleReopen();
                   }),
                   &run);
  g_signal_connect(application, "open",
                   G_CALLBACK(+[](GApplication*, GFile** files, gint count, gchar*, gpointer data) {
                     auto* r = static_cast<Run*>(data);
                     r->launchOnce();
                     std::vector<std::string> paths;
                     for (gint i = 0; i < count; ++i) {
                       if (char* path = g_file_get_path(files[i])) {
                         paths.emplace_back(path);
                         g_free(path);
                       }
                     }
                     r->delegate->openFiles(paths);
                   }),
                   &run);

  int status = g_application_run(G_APPLICATION(application), argc, argv);
  run.delegate.reset();
  g_object_unref(application);
  return status;
}

} // namespace orvane
