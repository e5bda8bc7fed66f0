// What the hotkeys take from the application in front: its identity, its
// selected text, the point the user looks at and the document it shows.
#pragma once

#include "desktop/Geometry.h"

#include <optional>
#include <string>

namespace orvane {

struct FrontApplication {
  int pid = 0;
  // How log lines name it: the window's WM_CLASS class, "?" when it has none.
  std::string identifier;
  // The front window belongs to a running Orvane.
  bool is_this_program = false;
};

class Capture {
public:
  virtual ~Capture() = default;
  virtual std::optional<FrontApplication> frontApplication() = 0;
  // The front application's selected text; never an empty string.
  virtual std::optional<std::string> captureSelection() = 0;
  // The centre of the front window's frame, else the pointer; desktop
  // coordinates. Logs where it came from.
  virtual Point attentionPoint() = 0;
  // The document the front window shows, as an absolute path.
  virtual std::optional<std::string> focusedDocumentPath() = 0;
  // The 1-based page of the quote in the PDF, 0 when unknown.
  virtual int pageOfQuote(const std::string& pdf_path, const std::string& quote) = 0;

  // From hold to release the front window is read once: the calls above
  // made for one key press see the same window, and the X server is not
  // asked again for each of them.
  virtual void holdFrontWindow() {}
  virtual void releaseFrontWindow() {}
  // While held: starts reading the selection that the capture of this key
  // press will most likely take, so that the read runs while the front
  // window is looked at. Dropped, when not taken, at the release.
  virtual void readSelectionAhead() {}
};

// Holds the front window for the life of the scope.
class FrontWindowHold {
public:
  explicit FrontWindowHold(Capture& capture) : capture_(capture) { capture_.holdFrontWindow(); }
  ~FrontWindowHold() { capture_.releaseFrontWindow(); }
  FrontWindowHold(const FrontWindowHold&) = delete;
  FrontWindowHold& operator=(const FrontWindowHold&) = delete;

private:
  Capture& capture_;
};

} // namespace orvane
