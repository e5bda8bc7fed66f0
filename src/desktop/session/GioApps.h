// Helpers over GIO's application registry shared by the workspace and the
// launcher.
#pragma once

#include "base/GObjectPtr.h"

#include <functional>
#include <gio/gio.h>
#include <string>

namespace orvane {

// A launch context of the display, for startup notification and focus.
GObjectPtr<GAppLaunchContext> LaunchContext();
// The PDF viewer: the "PdfViewer" setting (a desktop-file id) when set and
// installed, else the default application for application/pdf; null when
// there is none.
GObjectPtr<GAppInfo> PdfViewerApp();
// Asks the file manager on the session bus to show the file selected
// (org.freedesktop.FileManager1.ShowItems). `done` runs on the main loop
// with the bus when the file manager answered, null when there is none.
void ShowItemsInFileManager(const std::string& path, std::function<void(GDBusConnection*)> done);

} // namespace orvane
