#include "capture/CaptureModes.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/session/DBusMessageBus.h"
#include "desktop/session/DBusNotifications.h"
#include "desktop/session/RunningInstance.h"

#include <cerrno>
#include <glib/gstdio.h>
#include <gtk/gtk.h>
#include <unistd.h>

namespace orvane {

namespace {

enum class Readers { kEveryone, kOnlyTheUser };

// Written whole or not at all (a temporary file renamed into place). A file
// only the user may read has mode 0600 from the start, not just at the end.
bool WriteHandoff(const std::string& folder, const char* name, const std::string& text,
                  Readers readers) {
  g_mkdir_with_parents(folder.c_str(), 0700);
  std::string path = JoinPath(folder, name);
  bool private_file = readers == Readers::kOnlyTheUser;
  GErrorPtr error;
  errno = 0;
  if (g_file_set_contents_full(path.c_str(), text.data(), gssize(text.size()),
                               G_FILE_SET_CONTENTS_CONSISTENT, private_file ? 0600 : 0666,
                               error.out()) &&
      (!private_file || g_chmod(path.c_str(), 0600) == 0))
    return true;
  SparLog("capture: could not write %@ (%@)", name,
          error ? error.message() : std::string(g_strerror(errno)));
  return false;
}

void DeleteHandoff(const std::string& folder, const char* name) {
  g_unlink(JoinPath(folder, name).c_str());
}

// "x y", six decimals each, whatever the locale's decimal mark.
std::string ScreenHintText(Point point) {
  char x[G_ASCII_DTOSTR_BUF_SIZE];
  char y[G_ASCII_DTOSTR_BUF_SIZE];
  g_ascii_formatd(x, sizeof x, "%f", point.x);
  g_ascii_formatd(y, sizeof y, "%f", point.y);
  return std::string(x) + " " + y;
}

int CaptureSelectionMode(DesktopCapture& capture) {
  const std::string& folder = capture.handoffFolder();
  DeleteHandoff(folder, kSelectionHandoff);
  DeleteHandoff(folder, kScreenHandoff);
  std::optional<FrontApplication> front = capture.frontApplication();
  if (front && front->is_this_program)
    return 0;
  Point attention = capture.attentionPoint();
  WriteHandoff(folder, kScreenHandoff, ScreenHintText(attention), Readers::kEveryone);
  SparLog("capture: screen hint %@ from %@", PointText(attention), "attention");
  if (std::optional<std::string> text = capture.captureSelection()) {
    // Only the user may read what they selected.
    WriteHandoff(folder, kSelectionHandoff, *text, Readers::kOnlyTheUser);
    SparLog("capture: %lu chars from %@", Utf16Length(*text),
            front ? front->identifier : std::string("?"));
  }
  return 0;
}

int CaptureQuoteMode(DesktopCapture& capture, MessageBus& bus) {
  const std::string& folder = capture.handoffFolder();
  DeleteHandoff(folder, kQuoteHandoff);
  std::optional<FrontApplication> front = capture.frontApplication();
  if (front && front->is_this_program)
    return 0;
  std::string identifier = front ? front->identifier : "?";
  std::optional<std::string> text = capture.captureSelection();
  if (!text) {
    SparLog("quote: nothing selected in %@", identifier);
    return 0;
  }
  if (WriteHandoff(folder, kQuoteHandoff, *text, Readers::kEveryone) &&
      !bus.post(kQuoteNotification, ""))
    SparLog("quote: the session bus cannot be reached");
  SparLog("quote: %lu chars from %@", Utf16Length(*text), identifier);
  return 0;
}

} // namespace

bool IsCaptureArgument(int argc, char** argv) {
  if (argc < 2 || !argv[1])
    return false;
  std::string first = argv[1];
  return first == kCaptureSelectionArgument || first == kCaptureQuoteArgument;
}

int RunCaptureModeWith(const std::string& mode, CaptureModeSeams seams) {
  Selections& selections = seams.capture.selections;
  DesktopCapture capture(std::move(seams.capture));
  int status = 2;
  if (mode == kCaptureSelectionArgument)
    status = CaptureSelectionMode(capture);
  else if (mode == kCaptureQuoteArgument)
    status = CaptureQuoteMode(capture, seams.bus);
  // This process now owns the user's clipboard: it must outlive the exit.
  if (capture.restoredClipboard())
    selections.keepClipboardAfterExit();
  return status;
}

int RunCaptureMode(const std::string& mode, const DesktopChoice& desktop) {
  if (!gtk_init_check(nullptr, nullptr)) {
    SparLog("capture: no display to capture from — %@ did nothing", mode);
    return 0;
  }
  std::unique_ptr<DesktopBackend> backend = MakeDesktopBackend(desktop);
  std::unique_ptr<FrontWindows> front_windows = backend->makeFrontWindows();
  std::unique_ptr<Selections> selections = backend->makeSelections();
  std::unique_ptr<Screens> screens = backend->makeScreens();
  std::unique_ptr<Accessibility> accessibility = backend->makeAccessibility();
  DBusNotifications notifications;
  DBusMessageBus bus;
  int own_pid = int(getpid());
  auto is_this_program = [own_pid](int pid) {
    if (pid == own_pid)
      return true;
    std::optional<int> running = RunningInstancePid();
    return running && *running == pid;
  };
  DesktopCaptureSeams capture{*front_windows,
                              *selections,
                              *screens,
                              *accessibility,
                              notifications,
                              is_this_program,
                              [] { return std::optional<std::string>(); },
                              ""};
  return RunCaptureModeWith(mode, {std::move(capture), bus});
}

} // namespace orvane
