// Orvane's own windows found in a desktop's window list (ListedOwnWindows,
// as the KWin and GNOME backends use it), with real GTK windows on the
// test's X display and a window list the test arranges: a window of the
// same title but another size is never taken for the GTK window, and the
// panel is made the panel once the list has it, each time it is shown.
#include <gtest/gtest.h>

#include "desktop/wayland/ListedOwnWindows.h"

#include "support/FakeWindows.h"
#include "support/MainLoop.h"

#include <gtk/gtk.h>
#include <unistd.h>

namespace orvane {
namespace {

// A shown GTK window of the panel's title and size.
GtkWindow* ShownWindow(int width, int height) {
  GtkWindow* window = GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL));
  gtk_window_set_title(window, "Orvane");
  gtk_window_set_default_size(window, width, height);
  gtk_widget_show_all(GTK_WIDGET(window));
  EXPECT_TRUE(SpinUntil([&] { return gtk_widget_get_mapped(GTK_WIDGET(window)); }, 10));
  SpinFor(0.1);
  return window;
}

TEST(ListedOwnWindowsTest, AListedWindowOfTheSameTitleButAnotherSizeIsAnotherWindow) {
  FakeWindows windows;
  int me = int(getpid());
  windows.live_pids.insert(me);
  // The library window, listed, of the same title.
  unsigned long library = windows.add(me, "Orvane", Rect{249, 115, 1100, 797});
  ListedOwnWindows own(windows);
  GtkWindow* panel = ShownWindow(560, 680);
  // The panel is not listed yet: nothing of the library's is taken for it.
  EXPECT_NE(own.frame(panel), (Rect{249, 115, 1100, 797}));
  own.requestActivation(panel, 0);
  own.setFrame(panel, Rect{520, 100, 560, 717});
  EXPECT_TRUE(windows.frame_writes.empty());
  SpinFor(0.2);
  EXPECT_TRUE(windows.activations.empty());

  // Once listed, the window asked to be activated is, and placed where it
  // was asked to be.
  unsigned long listed = windows.add(me, "Orvane", Rect{1040, 195, 560, 717});
  ASSERT_TRUE(SpinUntil([&] { return !windows.activations.empty(); }, 5));
  EXPECT_EQ(windows.activations, (std::vector<unsigned long>{listed}));
  ASSERT_TRUE(SpinUntil([&] { return !windows.frame_writes.empty(); }, 5));
  EXPECT_EQ(windows.frame_writes[0].id, listed);
  EXPECT_EQ(windows.frame_writes[0].frame, (Rect{520, 100, 560, 717}));
  EXPECT_EQ(own.frame(panel), (Rect{520, 100, 560, 717}));
  own.requestActivation(panel, 0);
  EXPECT_EQ(windows.activations, (std::vector<unsigned long>{listed, listed}));
  own.setFrame(panel, Rect{600, 100, 560, 717});
  ASSERT_EQ(windows.frame_writes.size(), 2u);
  EXPECT_EQ(windows.frame_writes[1].id, listed);
  EXPECT_NE(windows.frame_writes[1].id, library);
  gtk_widget_destroy(GTK_WIDGET(panel));
}

TEST(ListedOwnWindowsTest, ThePanelIsMadeThePanelOnceListedEachTimeItIsShown) {
  FakeWindows windows;
  int me = int(getpid());
  windows.live_pids.insert(me);
  windows.add(me, "Orvane", Rect{249, 115, 1100, 797});
  std::vector<unsigned long> made;
  ListedOwnWindows::Options options;
  options.make_panel = [&](unsigned long id) {
    made.push_back(id);
    return true;
  };
  ListedOwnWindows own(windows, options);
  GtkWindow* panel = GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL));
  gtk_window_set_title(panel, "Orvane");
  gtk_window_set_default_size(panel, 560, 680);
  own.makePanel(panel);
  gtk_widget_show_all(GTK_WIDGET(panel));
  // Listed a moment after it is mapped, as a compositor lists it once it
  // has its first frame.
  SpinFor(0.2);
  EXPECT_TRUE(made.empty());
  unsigned long first = windows.add(me, "Orvane", Rect{1040, 195, 560, 717});
  ASSERT_TRUE(SpinUntil([&] { return !made.empty(); }, 5));
  EXPECT_EQ(made, (std::vector<unsigned long>{first}));

  // Hidden and shown again: a new window for the compositor.
  gtk_widget_hide(GTK_WIDGET(panel));
  windows.list.pop_back();
  unsigned long second = windows.add(me, "Orvane", Rect{1040, 195, 560, 717});
  gtk_widget_show_all(GTK_WIDGET(panel));
  ASSERT_TRUE(SpinUntil([&] { return made.size() == 2; }, 5));
  EXPECT_EQ(made, (std::vector<unsigned long>{first, second}));
  SpinFor(0.2);
  EXPECT_EQ(made.size(), 2u);
  gtk_widget_destroy(GTK_WIDGET(panel));
}

TEST(ListedOwnWindowsTest, AWindowBeingResizedStaysItsListedWindow) {
  FakeWindows windows;
  int me = int(getpid());
  windows.live_pids.insert(me);
  windows.add(me, "Orvane", Rect{249, 115, 1100, 797});
  ListedOwnWindows own(windows);
  GtkWindow* chat = ShownWindow(560, 680);
  unsigned long listed = windows.add(me, "Orvane", Rect{1040, 195, 560, 717});
  EXPECT_EQ(own.frame(chat), (Rect{1040, 195, 560, 717}));

  // The compositor has given the window a new size that GTK has not taken
  // yet (GNOME Shell maximising it): still its listed window, never GTK's
  // guess of a frame at the monitor's corner.
  windows.list.back().frame = Rect{0, 0, 1600, 968};
  EXPECT_EQ(own.frame(chat), (Rect{0, 0, 1600, 968}));
  own.setFrame(chat, Rect{800, 0, 800, 968});
  ASSERT_TRUE(SpinUntil([&] { return !windows.frame_writes.empty(); }, 5));
  EXPECT_EQ(windows.frame_writes[0].id, listed);

  // Hidden, it is forgotten: shown again, it is looked for anew.
  gtk_widget_hide(GTK_WIDGET(chat));
  windows.list.pop_back();
  gtk_widget_show_all(GTK_WIDGET(chat));
  ASSERT_TRUE(SpinUntil([&] { return gtk_widget_get_mapped(GTK_WIDGET(chat)); }, 10));
  EXPECT_NE(own.frame(chat), (Rect{0, 0, 1600, 968}));
  gtk_widget_destroy(GTK_WIDGET(chat));
}

} // namespace
} // namespace orvane
