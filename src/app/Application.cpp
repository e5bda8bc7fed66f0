#include "app/Application.h"

#include "app/AppDelegate.h"
#include "base/BuildInfo.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <gtk/gtk.h>

#include <cstdio>
#include <string>

namespace orvane {

namespace {

struct Run {
  const DesktopChoice& desktop;
  std::unique_ptr<DesktopBackend> backend;
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

int RunApplication(int argc, char** argv, const DesktopChoice& desktop) {
  // GDK is held to the backend the desktop needs by main(), before any mode
  // starts.
  g_set_prgname("orvane");
  g_set_application_name("Orvane");
  // Opened here, not by the application's start-up, which would end the
  // process with no more than a line on its standard error.
  if (!gtk_init_check(&argc, &argv)) {
    std::string text = NoDisplayText(desktop);
    SparLog("%@", text);
    std::fprintf(stderr, "orvane: %s\n", LogEscapedText(text).c_str());
    return 1;
  }

  GtkApplication* application = gtk_application_new(kApplicationId, G_APPLICATION_HANDLES_OPEN);
  Run run{desktop, nullptr, nullptr};

  g_signal_connect(application, "startup", G_CALLBACK(+[](GApplication* app, gpointer data) {
                     auto* r = static_cast<Run*>(data);
                     r->backend = MakeDesktopBackend(r->desktop);
                     r->delegate = std::make_unique<AppDelegate>(
                         GTK_APPLICATION(app),
                         RealDesktopSeams(*r->backend, r->desktop.setting_note));
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
