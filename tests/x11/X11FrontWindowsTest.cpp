// The front window as the window manager (openbox) reports it, checked
// against what xwininfo and xprop say about the same window.
#include "desktop/x11/X11FrontWindows.h"
#include "support/TempDir.h"
#include "x11/X11TestSupport.h"

#include <gtest/gtest.h>
#include <regex>

namespace orvane {
namespace {

constexpr double kScreenHeight = 800; // the test display is 1280x800

long Field(const std::string& text, const std::string& label) {
  std::smatch match;
  std::regex pattern(label + R"(:\s+(-?\d+))");
  if (!std::regex_search(text, match, pattern))
    return -100000;
  return std::stol(match[1]);
}

// The outer frame by xwininfo (the client area) and xprop (the window
// manager's frame extents), in desktop coordinates.
std::optional<Rect> FrameByTools(Window window) {
  std::string id = std::to_string(window);
  ToolResult info = RunTool({"xwininfo", "-id", id});
  ToolResult extents = RunTool({"xprop", "-id", id, "_NET_FRAME_EXTENTS"});
  std::smatch match;
  if (!info.ok() ||
      !std::regex_search(extents.out, match, std::regex(R"(= (\d+), (\d+), (\d+), (\d+))")))
    return std::nullopt;
  double left = std::stod(match[1]), right = std::stod(match[2]), top = std::stod(match[3]),
         bottom = std::stod(match[4]);
  double x = double(Field(info.out, "Absolute upper-left X")) - left;
  double y = double(Field(info.out, "Absolute upper-left Y")) - top;
  double width = double(Field(info.out, "Width")) + left + right;
  double height = double(Field(info.out, "Height")) + top + bottom;
  return Rect{x, kScreenHeight - (y + height), width, height};
}

// Waits until the window manager has made the window active and framed it.
bool WaitUntilFront(Window window) {
  TestDisplay display;
  return SpinUntil([&] {
    return display.activeWindow() == window &&
           RunTool({"xprop", "-id", std::to_string(window), "_NET_FRAME_EXTENTS"}).out.find("= ") !=
               std::string::npos;
  });
}

// A GTK window with a text entry, titled `title`, started and waited for
// until it is in front and framed; empty when it is not.
std::unique_ptr<Child> StartEntryInFront(const TempDir& dir, const std::string& title,
                                         Window* window) {
  std::unique_ptr<Child> entry = StartReady(
      {"/usr/bin/python3", FixtureScript("entry_window.py"), title, "text", dir.file("keys.log")},
      window);
  if (!entry || !WaitUntilFront(*window))
    return nullptr;
  return entry;
}

void SetActiveWindowProperty(Atom type, long value) {
  TestDisplay display;
  XChangeProperty(display.get(), DefaultRootWindow(display.get()),
                  display.atom("_NET_ACTIVE_WINDOW"), type, 32, PropModeReplace,
                  reinterpret_cast<unsigned char*>(&value), 1);
  XSync(display.get(), False);
}

TEST(X11FrontWindowsTest, AGtkWindowInFrontWithItsPidClassTitleAndFrame) {
  TempDir dir;
  Window window = None;
  std::unique_ptr<Child> entry = StartEntryInFront(dir, "Überschrift — ✓", &window);
  ASSERT_TRUE(entry);

  std::optional<FrontWindow> front = X11FrontWindows().frontWindow();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->id, window);
  EXPECT_EQ(front->pid, entry->pid());
  EXPECT_EQ(front->wm_instance, "orvane-entry-fixture");
  EXPECT_EQ(front->wm_class, "OrvaneEntryFixture");
  EXPECT_EQ(front->title, "Überschrift — ✓");
  std::optional<Rect> expected = FrameByTools(window);
  ASSERT_TRUE(expected);
  ASSERT_TRUE(front->frame);
  EXPECT_EQ(*front->frame, *expected);
  // The frame is the decorated one: larger than the client area.
  ToolResult info = RunTool({"xwininfo", "-id", std::to_string(window)});
  EXPECT_GT(front->frame->height, double(Field(info.out, "Height")));
}

TEST(X11FrontWindowsTest, AnOldStyleWindowWithoutPidPropertyStillHasItsProcess) {
  // Only a Latin-1 WM_NAME and WM_CLASS; no _NET_WM_PID, no _NET_WM_NAME.
  Window window = None;
  std::unique_ptr<Child> owner = StartReady(
      {SelectionOwnerFixture(), "--window", "Caf\xe9 ancien", "oldstyle", "OldStyle"}, &window);
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitUntilFront(window));
  EXPECT_NE(RunTool({"xprop", "-id", std::to_string(window), "_NET_WM_PID"}).out.find("not found"),
            std::string::npos);

  std::optional<FrontWindow> front = X11FrontWindows().frontWindow();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->id, window);
  EXPECT_EQ(front->pid, owner->pid());
  EXPECT_EQ(front->wm_instance, "oldstyle");
  EXPECT_EQ(front->wm_class, "OldStyle");
  EXPECT_EQ(front->title, "Café ancien");
  std::optional<Rect> expected = FrameByTools(window);
  ASSERT_TRUE(expected && front->frame);
  EXPECT_EQ(*front->frame, *expected);
}

TEST(X11FrontWindowsTest, WithoutFrameExtentsTheFrameIsTheWindowManagersFrameWindow) {
  TempDir dir;
  Window window = None;
  std::unique_ptr<Child> entry = StartEntryInFront(dir, "no extents", &window);
  ASSERT_TRUE(entry);
  std::optional<Rect> expected = FrameByTools(window);
  ASSERT_TRUE(expected);
  // The frame is then found by walking up to the window that openbox made
  // around the client, a child of the root.
  std::string id = std::to_string(window);
  ASSERT_TRUE(RunTool({"xprop", "-id", id, "-remove", "_NET_FRAME_EXTENTS"}).ok());
  ASSERT_NE(RunTool({"xprop", "-id", id, "_NET_FRAME_EXTENTS"}).out.find("not found"),
            std::string::npos);

  std::optional<FrontWindow> front = X11FrontWindows().frontWindow();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->id, window);
  EXPECT_EQ(front->pid, entry->pid());
  ASSERT_TRUE(front->frame);
  EXPECT_EQ(*front->frame, *expected);
}

TEST(X11FrontWindowsTest, AnXtermInFrontIsKnownByItsClass) {
  std::unique_ptr<Child> xterm = Child::Start({"xterm", "-T", "a terminal"});
  ASSERT_TRUE(xterm);
  TestDisplay display;
  std::optional<FrontWindow> front;
  ASSERT_TRUE(SpinUntil([&] {
    front = X11FrontWindows().frontWindow();
    return front && front->pid == xterm->pid() && front->frame;
  }));
  EXPECT_EQ(front->id, display.activeWindow());
  EXPECT_EQ(front->wm_instance, "xterm");
  EXPECT_EQ(front->wm_class, "XTerm");
  EXPECT_EQ(front->title, "a terminal");
}

TEST(X11FrontWindowsTest, NoActiveWindowOrAHostileValueGivesNothing) {
  X11FrontWindows windows;
  // None: nothing is active.
  SetActiveWindowProperty(XA_WINDOW, 0);
  EXPECT_EQ(windows.frontWindow(), std::nullopt);
  // A window that does not exist.
  SetActiveWindowProperty(XA_WINDOW, 0x7ffff0);
  EXPECT_EQ(windows.frontWindow(), std::nullopt);
  // Not a window at all.
  SetActiveWindowProperty(XA_STRING, 0x41414141);
  EXPECT_EQ(windows.frontWindow(), std::nullopt);
  // The property removed.
  TestDisplay display;
  XDeleteProperty(display.get(), DefaultRootWindow(display.get()),
                  display.atom("_NET_ACTIVE_WINDOW"));
  XSync(display.get(), False);
  EXPECT_EQ(windows.frontWindow(), std::nullopt);
}

TEST(X11FrontWindowsTest, AValueLeftWithoutWindowManagerCountsForNothing) {
  // A second display where no window manager runs, yet _NET_ACTIVE_WINDOW
  // names a real, mapped window (left behind, or set by anyone).
  XDesktop bare;
  ASSERT_TRUE(bare.start(/*with_window_manager=*/false, /*make_default=*/false));
  TestDisplay display(bare.name().c_str());
  ASSERT_TRUE(display.get());
  Window root = DefaultRootWindow(display.get());
  Window window = XCreateSimpleWindow(display.get(), root, 10, 10, 200, 100, 0, 0, 0);
  XMapWindow(display.get(), window);
  long value = long(window);
  XChangeProperty(display.get(), root, display.atom("_NET_ACTIVE_WINDOW"), XA_WINDOW, 32,
                  PropModeReplace, reinterpret_cast<unsigned char*>(&value), 1);
  XSync(display.get(), False);

  gchar* self = g_file_read_link("/proc/self/exe", nullptr);
  ASSERT_TRUE(self);
  ToolResult front = RunTool({"env", "DISPLAY=" + bare.name(), self, "--print-front-window"});
  g_free(self);
  EXPECT_EQ(front.out, "none\n");
  EXPECT_EQ(front.status, 0);
}

} // namespace
} // namespace orvane
