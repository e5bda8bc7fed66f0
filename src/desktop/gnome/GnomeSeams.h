// The desktop seams on GNOME's Wayland session, each through Orvane's GNOME
// Shell extension (GnomeShell): screens and the pointer, trust, the global
// hotkeys, the front window, selections and other windows. Frames are outer
// frames in desktop coordinates, converted from the shell's with its primary
// monitor. A window's id is the shell's own stable id. Main thread only.
#pragma once

#include "desktop/Accessibility.h"
#include "desktop/FrontWindows.h"
#include "desktop/Hotkeys.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"
#include "desktop/Windows.h"
#include "desktop/gnome/GnomeShell.h"

#include <functional>
#include <map>

namespace orvane {

// A window of the extension as the seams report it; `primary` is the
// primary monitor in the shell's coordinates.
WindowInfo WindowInfoFromShell(const ShellWindow& window, const Rect& primary);
FrontWindow FrontWindowFromShell(const ShellWindow& window, const Rect& primary);
// The screens of a monitor answer, the primary first.
std::vector<Screen> ScreensFromShell(const ShellMonitors& monitors);

class GnomeScreens final : public Screens {
public:
  // `shell` must outlive this object.
  explicit GnomeScreens(GnomeShell& shell) : shell_(shell) {}
  // Empty when the extension does not answer.
  std::vector<Screen> screens() const override;
  // {0, 0} when the extension does not answer.
  Point mouseLocation() const override;

private:
  GnomeShell& shell_;
};

// Trusted while the extension answers. The answer is kept while the
// extension's calls keep working, so that a capture does not pay a call for
// it each time; after a call that failed it is asked again.
class GnomeAccessibility final : public Accessibility {
public:
  // `setup_note` is what setting the extension up at start-up left to the
  // user ("" when nothing), said in the reason.
  GnomeAccessibility(GnomeShell& shell, std::string setup_note)
      : shell_(shell), setup_note_(std::move(setup_note)) {}
  bool isTrusted() const override;
  std::string reasonNotTrusted() const override;

private:
  GnomeShell& shell_;
  std::string setup_note_;
  mutable bool answered_ = false;
};

// The four hotkeys as the extension's keybindings: BindHotkeys binds them
// (the keys are the extension's settings, editable like any GNOME
// shortcut), and each press comes as the HotkeyPressed signal, taken only
// from the unique name that owns the shell's name on the bus. When the shell
// restarts, the bindings are asked for again.
class GnomeHotkeys final : public Hotkeys {
public:
  // `shell` must outlive this object.
  explicit GnomeHotkeys(GnomeShell& shell);
  ~GnomeHotkeys() override;
  GnomeHotkeys(const GnomeHotkeys&) = delete;
  GnomeHotkeys& operator=(const GnomeHotkeys&) = delete;

  // A single chord has no name the extension knows: false.
  bool bind(const std::string& accelerator, Handler handler) override;
  // The requests' ids are the extension's names (summon, quote,
  // friend-quote, talk); the chords are the extension's settings.
  std::vector<bool> bindAll(const std::vector<Request>& requests) override;

  // The unique name whose signals are taken ("" when none).
  const std::string& shellOwner() const { return owner_; }

private:
  static void OnSignal(GDBusConnection*, const gchar* sender, const gchar* path,
                       const gchar* interface, const gchar* signal, GVariant* parameters,
                       gpointer self);
  static void OnShellAppeared(GDBusConnection*, const gchar* name, const gchar* owner,
                              gpointer self);
  static void OnShellVanished(GDBusConnection*, const gchar* name, gpointer self);

  GnomeShell& shell_;
  std::map<std::string, Handler> handlers_;
  std::string owner_;
  std::string bound_with_; // the owner that BindHotkeys last answered for
  guint subscription_ = 0;
  guint watch_ = 0;
};

class GnomeFrontWindows final : public FrontWindows {
public:
  explicit GnomeFrontWindows(GnomeShell& shell) : shell_(shell) {}
  std::optional<FrontWindow> frontWindow() const override;

private:
  GnomeShell& shell_;
};

// PRIMARY and the CLIPBOARD through the shell's St.Clipboard, the copy chord
// through the shell's virtual keyboard.
class GnomeSelections final : public Selections {
public:
  explicit GnomeSelections(GnomeShell& shell) : shell_(shell) {}
  // Always nothing: the shell does not say which client owns a selection.
  std::optional<int> primaryOwnerPid() override { return std::nullopt; }
  // PRIMARY counts as the selection of the window in front.
  bool tellsPrimaryOwner() const override { return false; }
  std::optional<std::string> primaryText() override;
  // 0 when the extension does not answer.
  uint64_t clipboardChangeCount() override;
  ClipboardContents saveClipboard() override;
  std::optional<std::string> clipboardText() override;
  void restoreClipboard(const ClipboardContents& contents) override;
  // "ctrl-c" or "ctrl-shift-c"; the extension waits (bounded) for the held
  // modifiers to be released.
  bool sendCopyChord(CopyChord chord) override;
  void pause(std::chrono::milliseconds duration) override;
  // Nothing to do: the shell itself owns the restored CLIPBOARD, so it
  // outlives this process.
  void keepClipboardAfterExit() override {}

private:
  GnomeShell& shell_;
};

class GnomeWindows final : public Windows {
public:
  explicit GnomeWindows(GnomeShell& shell) : shell_(shell) {}

  std::optional<std::vector<WindowInfo>> windowsOfPid(int pid) override;
  std::vector<WindowInfo> normalWindows() override;
  std::optional<WindowInfo> window(unsigned long id) override;
  // One MoveResize: the shell leaves maximised and full-screen states, moves
  // and resizes, and answers once the frame has changed.
  bool setFrame(unsigned long id, const Rect& frame) override;
  bool activate(unsigned long id, uint32_t timestamp = 0) override;
  bool leaveFullScreen(unsigned long id) override;
  std::vector<int> pidsOfApplication(const std::string& name) override;
  std::vector<std::string> documentsOfPid(int pid) override;
  // Makes one of Orvane's own windows the floating panel.
  bool makePanel(unsigned long id);

private:
  std::optional<std::vector<WindowInfo>>
  converted(const std::optional<std::vector<ShellWindow>>& windows);

  GnomeShell& shell_;
};

} // namespace orvane
