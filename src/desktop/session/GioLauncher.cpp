#include "desktop/session/GioLauncher.h"

#include "base/GObjectPtr.h"
#include "desktop/session/GioApps.h"
#include "desktop/session/RunningInstance.h"

#include <gio/gdesktopappinfo.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace orvane {

namespace {

// The completion runs from the main loop, after the call has returned, as
// it does for a launch that must wait for the bus.
void Deliver(Launcher::Completion completion, LaunchOutcome outcome) {
  if (!completion)
    return;
  struct Pending {
    Launcher::Completion completion;
    LaunchOutcome outcome;
  };
  guint source = g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        auto* pending = static_cast<Pending*>(data);
        pending->completion(std::move(pending->outcome));
        return G_SOURCE_REMOVE;
      },
      new Pending{std::move(completion), std::move(outcome)},
      [](gpointer data) { delete static_cast<Pending*>(data); });
  g_source_set_name_by_id(source, "[orvane] launch outcome");
}

LaunchOutcome Failure(const std::string& text) {
  return LaunchOutcome{0, text};
}

// Starts the application with the addresses, answering the pid of the
// process it spawned (0 when it was started through D-Bus activation, or
// handed over by an application that is not a desktop file).
LaunchOutcome LaunchWithPid(GAppInfo* app, const std::vector<std::string>& uris) {
  GList* list = nullptr;
  for (auto it = uris.rbegin(); it != uris.rend(); ++it)
    list = g_list_prepend(list, const_cast<char*>(it->c_str()));
  auto context = LaunchContext();
  GErrorPtr error;
  LaunchOutcome outcome;
  bool launched = false;
  if (G_IS_DESKTOP_APP_INFO(app)) {
    launched = g_desktop_app_info_launch_uris_as_manager(
        G_DESKTOP_APP_INFO(app), list, context.get(), G_SPAWN_SEARCH_PATH, nullptr, nullptr,
        [](GDesktopAppInfo*, GPid pid, gpointer data) {
          static_cast<LaunchOutcome*>(data)->pid = pid;
        },
        &outcome, error.out());
  } else {
    launched = g_app_info_launch_uris(app, list, context.get(), error.out());
  }
  g_list_free(list);
  if (!launched)
    return Failure(error.message());
  return outcome;
}

std::string UriOf(const std::string& path) {
  return GCharPtr(g_filename_to_uri(path.c_str(), nullptr, nullptr)).str();
}

void OpenWithDefaultHandler(const std::string& path, Launcher::Completion completion) {
  auto file = GObjectPtr<GFile>::adopt(g_file_new_for_path(path.c_str()));
  GErrorPtr error;
  auto app =
      GObjectPtr<GAppInfo>::adopt(g_file_query_default_handler(file.get(), nullptr, error.out()));
  if (!app) {
    Deliver(std::move(completion), Failure(error.message()));
    return;
  }
  GCharPtr uri(g_file_get_uri(file.get()));
  Deliver(std::move(completion), LaunchWithPid(app.get(), {uri.str()}));
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

} // namespace

void GioLauncher::openFile(const std::string& path, Completion completion) {
  OpenWithDefaultHandler(path, std::move(completion));
}

void GioLauncher::openApplication(const std::string& application, Completion completion) {
  GObjectPtr<GAppInfo> app;
  if (application.find('/') != std::string::npos) {
    if (EndsWith(application, ".desktop")) {
      app = GObjectPtr<GAppInfo>::adopt(
          G_APP_INFO(g_desktop_app_info_new_from_filename(application.c_str())));
    } else if (g_file_test(application.c_str(), G_FILE_TEST_IS_REGULAR) &&
               access(application.c_str(), X_OK) == 0) {
      // An executable: started on its own, reaped by GLib.
      char* argv[] = {const_cast<char*>(application.c_str()), nullptr};
      GPid pid = 0;
      GErrorPtr error;
      if (!g_spawn_async(nullptr, argv, nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &pid,
                         error.out()))
        Deliver(std::move(completion), Failure(error.message()));
      else
        Deliver(std::move(completion), LaunchOutcome{pid, std::nullopt});
      return;
    }
  } else if (!application.empty()) {
    app = GObjectPtr<GAppInfo>::adopt(G_APP_INFO(g_desktop_app_info_new(application.c_str())));
    if (!app && !EndsWith(application, ".desktop"))
      app = GObjectPtr<GAppInfo>::adopt(
          G_APP_INFO(g_desktop_app_info_new((application + ".desktop").c_str())));
  }
  if (!app) {
    Deliver(std::move(completion), Failure("no application at " + application));
    return;
  }
  Deliver(std::move(completion), LaunchWithPid(app.get(), {}));
}

void GioLauncher::openWithViewer(const std::string& path, Completion completion) {
  GObjectPtr<GAppInfo> app = PdfViewerApp();
  if (!app) {
    LaunchOutcome none = Failure("no application opens PDF files");
    none.no_application = true;
    Deliver(std::move(completion), std::move(none));
    return;
  }
  Deliver(std::move(completion), LaunchWithPid(app.get(), {UriOf(path)}));
}

void GioLauncher::reveal(const std::string& path, Completion completion) {
  ShowItemsInFileManager(path, [path, completion = std::move(completion)](GDBusConnection* bus) {
    if (!bus) { // no file manager on the bus: the containing folder opens
      GCharPtr folder(g_path_get_dirname(path.c_str()));
      OpenWithDefaultHandler(folder.str(), completion);
      return;
    }
    // The file manager that answered is the process whose window shows
    // the file.
    int pid = PidOfBusName(bus, "org.freedesktop.FileManager1").value_or(0);
    Deliver(completion, LaunchOutcome{pid, std::nullopt});
  });
}

} // namespace orvane
