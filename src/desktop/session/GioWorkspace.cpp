#include "desktop/session/GioWorkspace.h"

#include "base/GObjectPtr.h"
#include "desktop/session/GioApps.h"

#include <gio/gio.h>

namespace orvane {

namespace {

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
  GObjectPtr<GAppInfo> app = PdfViewerApp();
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
  GCharPtr folder(g_path_get_dirname(path.c_str()));
  std::string folder_uri = GCharPtr(g_filename_to_uri(folder.get(), nullptr, nullptr)).str();
  ShowItemsInFileManager(path, [folder_uri](GDBusConnection* shown) {
    if (!shown) // no file manager on the bus: open the containing folder
      g_app_info_launch_default_for_uri(folder_uri.c_str(), nullptr, nullptr);
  });
}

} // namespace orvane
