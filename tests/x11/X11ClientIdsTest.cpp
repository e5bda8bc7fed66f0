// The XRes client-id queries behind every front window and selection owner:
// the server's version is asked once per connection, not once per query.
// gtest before Xlib, whose macros (None, Bool) clash with its names.
#include <gtest/gtest.h>

#include "desktop/x11/XClientIds.h"
#include "desktop/x11/XSelectionReader.h"
#include "x11/X11TestSupport.h"

#include <unistd.h>

namespace orvane {
namespace {

Window MakeWindow(Display* display) {
  Window window = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 10, 10, 0, 0, 0);
  XSync(display, False);
  return window;
}

TEST(X11ClientIdsTest, TheVersionIsAskedOncePerConnectionAndEachQueryIsOneRequest) {
  TestDisplay display;
  ASSERT_TRUE(display.get());
  Window window = MakeWindow(display.get());
  EXPECT_EQ(PidOfWindowClient(display.get(), 0), std::nullopt);
  EXPECT_TRUE(ClientIdsSupported(display.get()));
  EXPECT_EQ(PidOfWindowClient(display.get(), window), int(getpid()));
  for (int round = 0; round < 3; ++round) {
    unsigned long before = XNextRequest(display.get());
    EXPECT_EQ(PidOfWindowClient(display.get(), window), int(getpid()));
    // Only the client-id query itself went to the server.
    EXPECT_EQ(XNextRequest(display.get()) - before, 1UL);
  }
  unsigned long before = XNextRequest(display.get());
  EXPECT_TRUE(ClientIdsSupported(display.get()));
  EXPECT_EQ(XNextRequest(display.get()), before);
}

TEST(X11ClientIdsTest, AConnectionOpenedAfterAnotherClosedAsksAnew) {
  {
    TestDisplay first;
    ASSERT_TRUE(first.get());
    EXPECT_TRUE(ClientIdsSupported(first.get()));
  }
  // Xlib may give the next connection the closed one's address: what was
  // kept for the closed one must not answer for it.
  TestDisplay second;
  ASSERT_TRUE(second.get());
  unsigned long before = XNextRequest(second.get());
  EXPECT_TRUE(ClientIdsSupported(second.get()));
  EXPECT_GE(XNextRequest(second.get()) - before, 1UL);
  Window window = MakeWindow(second.get());
  EXPECT_EQ(PidOfWindowClient(second.get(), window), int(getpid()));
}

TEST(X11ClientIdsTest, AReaderAsksForTheProcessOfAWindowInOneRoundTrip) {
  XSelectionReader reader(/*watch_clipboard=*/false);
  ASSERT_TRUE(reader.connected());
  TestDisplay display;
  ASSERT_TRUE(display.get());
  Window window = MakeWindow(display.get());
  EXPECT_EQ(reader.pidOfWindow(window), int(getpid()));
  unsigned long before = XNextRequest(reader.display());
  EXPECT_EQ(reader.pidOfWindow(window), int(getpid()));
  // The query's reply already tells that no error came before it: no
  // further round trip to catch errors.
  EXPECT_EQ(XNextRequest(reader.display()) - before, 1UL);
  EXPECT_EQ(reader.untrappedErrors(), 0U);
}

} // namespace
} // namespace orvane
