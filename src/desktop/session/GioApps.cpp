#include "desktop/session/GioApps.h"

#include "base/Settings.h"

#include <gdk/gdk.h>
#include <gio/gdesktopappinfo.h>
#include <memory>

namespace orvane {

GObjectPtr<GAppLaunchContext> LaunchContext() {
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return {};
  return GObjectPtr<GAppLaunchContext>::adopt(
      G_APP_LAUNCH_CONTEXT(gdk_display_get_app_launch_context(display)));
}

GObjectPtr<GAppInfo> PdfViewerApp() {
  std::string viewer = Settings::standard().stringForKey("PdfViewer").value_or("");
  GObjectPtr<GAppInfo> app;
  if (!viewer.empty())
    app = GObjectPtr<GAppInfo>::adopt(G_APP_INFO(g_desktop_app_info_new(viewer.c_str())));
  if (!app)
    app = GObjectPtr<GAppInfo>::adopt(g_app_info_get_default_for_type("application/pdf", FALSE));
  return app;
}

void ShowItemsInFileManager(const std::string& path, std::function<void(GDBusConnection*)> done) {
  GCharPtr uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  auto bus =
      GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (!bus || !uri.get()) {
    done(nullptr);
    return;
  }
  auto* pending = new std::function<void(GDBusConnection*)>(std::move(done));
  const gchar* uris[] = {uri.get(), nullptr};
  g_dbus_connection_call(
      bus.get(), "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
      "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::function<void(GDBusConnection*)>> done(
            static_cast<std::function<void(GDBusConnection*)>*>(data));
        GErrorPtr error;
        GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error.out()));
        (*done)(reply ? G_DBUS_CONNECTION(source) : nullptr);
      },
      pending);
}

} // namespace orvane
