// The workspace seam: other applications that open things for us.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace orvane {

// An error's text, or nothing when the operation succeeded.
using ErrorText = std::optional<std::string>;

class Workspace {
public:
  virtual ~Workspace() = default;
  // The user's default handler for the address (the web browser for http).
  virtual ErrorText openInBrowser(const std::string& uri) = 0;
  // The PDF viewer: the "PdfViewer" setting (a desktop-file id) when set,
  // else the default application for application/pdf. The completion reports
  // a launch failure, on the main loop.
  virtual void openInViewer(const std::string& path, std::function<void(ErrorText)> completion) = 0;
  // Shows the file selected in the file manager, else opens its folder.
  virtual void reveal(const std::string& path) = 0;
};

} // namespace orvane
