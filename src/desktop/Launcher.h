// The launcher seam: opening files and applications, and revealing files,
// where the caller needs the process that answered (to find its window).
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace orvane {

struct LaunchOutcome {
  // The process that was started or that shows the result; 0 when it is
  // not known (an application started through D-Bus activation).
  int pid = 0;
  // Why nothing was opened; nothing when the launch succeeded.
  std::optional<std::string> error;
  // Nothing was opened because no application is installed for it (no PDF
  // viewer, say); `error` then says so too.
  bool no_application = false;
};

class Launcher {
public:
  virtual ~Launcher() = default;
  using Completion = std::function<void(LaunchOutcome)>;
  // Opens the file with its default application, activating it. The
  // completion runs on the main loop, once.
  virtual void openFile(const std::string& path, Completion completion) = 0;
  // Starts an application: a desktop file's path, a desktop-file id
  // ("org.gnome.Evince" or "org.gnome.Evince.desktop"), or an executable's
  // path.
  virtual void openApplication(const std::string& application, Completion completion) = 0;
  // Opens a PDF with the PDF viewer: the "PdfViewer" setting (a desktop-file
  // id) when set, else the default application for application/pdf.
  virtual void openWithViewer(const std::string& path, Completion completion) = 0;
  // Shows the file selected in the file manager
  // (org.freedesktop.FileManager1.ShowItems); the outcome's pid is the file
  // manager's. Without a file manager on the bus, opens the containing
  // folder with its default application.
  virtual void reveal(const std::string& path, Completion completion) = 0;
};

} // namespace orvane
