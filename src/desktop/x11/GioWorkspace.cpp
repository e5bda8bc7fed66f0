#include "desktop/x11/GioWorkspace.h"

#include "base/GObjectPtr.h"
#include "base/Settings.h"

#include <gdk/gdk.h>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <memory>

namespace orvane {

namespace {

GObjectPtr<GAppLaunchContext> LaunchContext() {
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return {};
  return GObjectPtr<GAppLaunchContext>::adopt(
      G_APP_LAUNCH_CONTEXT(gdk_display_get_app_launch_context(display)));
}

ErrorText LaunchWith(GAppInfo* app, const std::string& path) {
  GObjectPtr<GFile> file = GObjectPtr<GFile>::adopt(g_file_new_for_path(path.c_str()));
  GList files = {file.get(), nullptr, nullptr};
  GErrorPtr error;
  auto context = LaunchContext();
  if (!g_app_info_launch(app, &files, context.get(), error.out()))
    return error.message();
  return std::nullopt;
}

} // namespace

ErrorText GioWorkspace::openInBrowser(const std::string& uri) {
  GErrorPtr error;
  auto context = LaunchContext();
  if (!g_app_info_launch_default_for_uri(uri.c_str(), context.get(), error.out()))
    return error.message();
  return std::nullopt;
}

void GioWorkspace::openInViewer(const std::string& path,
                                std::function<void(ErrorText)> completion) {
  ErrorText outcome;
  std::string viewer = Settings::standard().stringForKey("PdfViewer").value_or("");
  GObjectPtr<GAppInfo> app;
  if (!viewer.empty())
    app = GObjectPtr<GAppInfo>::adopt(G_APP_INFO(g_desktop_app_info_new(viewer.c_str())));
  if (!app)
    app = GObjectPtr<GAppInfo>::adopt(g_app_info_get_default_for_type("application/pdf", FALSE));
  if (app) {
    outcome = LaunchWith(app.get(), path);
  } else {
    GCharPtr uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
    outcome = openInBrowser(uri.str());
  }
  if (completion)
    completion(outcome);
}

void GioWorkspace::reveal(const std::string& path) {
  GCharPtr uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  GCharPtr folder(g_path_get_dirname(path.c_str()));
  GCharPtr folder_uri(g_filename_to_uri(folder.get(), nullptr, nullptr));
  auto bus =
      GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (!bus) {
    g_app_info_launch_default_for_uri(folder_uri.get(), nullptr, nullptr);
    return;
  }
  struct Request {
    std::string folder_uri;
  };
  auto* request = new Request{folder_uri.str()};
  const gchar* uris[] = {uri.get(), nullptr};
  g_dbus_connection_call(
      bus.get(), "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
      "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<Request> request(static_cast<Request*>(data));
        GErrorPtr error;
        GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error.out()));
        if (!reply) // no file manager on the bus: open the containing folder
          g_app_info_launch_default_for_uri(request->folder_uri.c_str(), nullptr, nullptr);
      },
      request);
}

} // namespace orvane
