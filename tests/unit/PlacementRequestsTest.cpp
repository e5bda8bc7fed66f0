#include "placement/PlacementRequests.h"

#include "desktop/session/GdkScreens.h"
#include "support/FakeScreens.h"
#include "support/FakeWindows.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

using Lines = std::vector<std::string>;

class PlacementRequestsTest : public ::testing::Test {
protected:
  FakeScreens screens;
  FakeWindows windows;
  FakeLauncher launcher;
  VirtualScheduler scheduler;
  std::vector<std::string> ask_splits;
  PlacementRequests placement{
      PlacementSeams{windows, screens, launcher, scheduler,
                     [this](const std::string& path) { ask_splits.push_back(path); }}};
  LogCapture log;

  // A request to open a file on a screen, answered with the launched pid.
  void placeFile(int pid, const std::string& screen = "1") {
    placement.placeRequested(R"({"kind":"file","path":"/u/paper.pdf","screen":)" + screen + "}");
    ASSERT_EQ(launcher.requests.size(), 1u);
    launcher.answer({pid, std::nullopt});
  }
};

// The second screen of FakeScreens: (1920, 0, 1280, 1024), all visible.
const Rect kTinyOnSecond{2010, 132, 1100, 760};

TEST(PlacedFrame, TinyWindowGetsTheFallbackSizeCentred) {
  EXPECT_EQ(PlacedFrame({10, 10, 150, 100}, {1920, 0, 1280, 1024}), kTinyOnSecond);
  // A visible frame smaller than the fallback size: the visible frame.
  EXPECT_EQ(PlacedFrame({10, 10, 150, 100}, {0, 20, 1024, 700}), (Rect{0, 20, 1024, 700}));
}

TEST(PlacedFrame, LargeWindowIsClampedToTheVisibleFrame) {
  EXPECT_EQ(PlacedFrame({0, 0, 3000, 2000}, {1920, 0, 1280, 1024}), (Rect{1920, 0, 1280, 1024}));
  // Only the height too large: the width stays.
  EXPECT_EQ(PlacedFrame({0, 0, 600, 2000}, {0, 0, 1920, 1050}), (Rect{660, 0, 600, 1050}));
}

TEST(PlacedFrame, CentringIsNotRounded) {
  EXPECT_EQ(PlacedFrame({0, 0, 300, 200}, {0, 0, 1001, 701}), (Rect{350.5, 250.5, 300, 200}));
}

TEST(PlacedFrame, EitherSideBelowTheMinimumGivesTheFallback) {
  EXPECT_EQ(PlacedFrame({0, 0, 199, 800}, {0, 0, 1920, 1050}).size(), (Size{1100, 760}));
  EXPECT_EQ(PlacedFrame({0, 0, 800, 119}, {0, 0, 1920, 1050}).size(), (Size{1100, 760}));
  EXPECT_EQ(PlacedFrame({0, 0, 200, 120}, {0, 0, 1920, 1050}).size(), (Size{200, 120}));
}

TEST(ScreenIndexValue, AnythingWithAnIntegerValue) {
  using nlohmann::json;
  EXPECT_EQ(ScreenIndexValue(json(1)), 1);
  EXPECT_EQ(ScreenIndexValue(json(1.0)), 1);
  EXPECT_EQ(ScreenIndexValue(json(1.9)), 1);
  EXPECT_EQ(ScreenIndexValue(json("1")), 1);
  EXPECT_EQ(ScreenIndexValue(json(" 2 screens")), 2);
  EXPECT_EQ(ScreenIndexValue(json("-3")), -3);
  EXPECT_EQ(ScreenIndexValue(json("abc")), 0);
  EXPECT_EQ(ScreenIndexValue(json(true)), 1);
  EXPECT_EQ(ScreenIndexValue(json(nullptr)), 0);
  EXPECT_EQ(ScreenIndexValue(json::array({1})), 0);
  EXPECT_EQ(ScreenIndexValue(json(1e300)), LONG_MAX);
  EXPECT_EQ(ScreenIndexValue(json(-1e300)), LONG_MIN);
  EXPECT_EQ(ScreenIndexValue(json(std::nan(""))), 0);
  EXPECT_EQ(ScreenIndexValue(json("99999999999999999999999")), LONG_MAX);
  EXPECT_EQ(ScreenIndexValue(json(uint64_t(18446744073709551615ull))), LONG_MAX);
}

TEST_F(PlacementRequestsTest, PayloadThatIsNotAnObjectIsBad) {
  std::string deep(100000, '[');
  for (const std::string& payload :
       {std::string(), std::string("not json"), std::string("[1,2]"), std::string("\"text\""),
        std::string("42"), std::string("null"), std::string("{\"kind\":"), deep,
        std::string("{\"a\":") + std::string(100000, '[')})
    placement.placeRequested(payload);
  EXPECT_EQ(log.messages(), Lines(9, "place note: bad payload"));
  EXPECT_TRUE(launcher.requests.empty());
}

TEST_F(PlacementRequestsTest, NothingToDoWithoutAPathOrWithAScreenOutOfRange) {
  placement.placeRequested(R"({"kind":"file"})");
  placement.placeRequested(R"({"path":""})");
  placement.placeRequested(R"({"path":42,"screen":1})");
  placement.placeRequested(R"({"path":["/x"]})");
  placement.placeRequested(R"({"path":"/x","screen":2})");
  placement.placeRequested(R"({"path":"/x","screen":-1})");
  placement.placeRequested(R"({"path":"/x","screen":1e300})");
  placement.placeRequested(R"({"path":"/x","screen":"2"})");
  placement.placeRequested(R"({"path":"a\u0000b"})");
  EXPECT_EQ(log.messages(),
            (Lines{"place note: nothing to do (path (null), screen 0 of 2)",
                   "place note: nothing to do (path , screen 0 of 2)",
                   "place note: nothing to do (path (null), screen 1 of 2)",
                   "place note: nothing to do (path (null), screen 0 of 2)",
                   "place note: nothing to do (path /x, screen 2 of 2)",
                   "place note: nothing to do (path /x, screen -1 of 2)",
                   "place note: nothing to do (path /x, screen 9223372036854775807 of 2)",
                   "place note: nothing to do (path /x, screen 2 of 2)",
                   "place note: nothing to do (path (null), screen 0 of 2)"}));
  EXPECT_TRUE(launcher.requests.empty());
}

TEST_F(PlacementRequestsTest, ScreenGivenAsTheStringOneIsAccepted) {
  placement.placeRequested(R"({"kind":"file","path":"/u/paper.pdf","screen":"1"})");
  placement.placeRequested(R"({"path":"/u/b.pdf","screen":1.0})");
  EXPECT_EQ(log.messages(),
            (Lines{"place: file /u/paper.pdf on screen 1", "place: file /u/b.pdf on screen 1"}));
  ASSERT_EQ(launcher.requests.size(), 2u);
  EXPECT_EQ(launcher.requests[0].what, "file");
  EXPECT_EQ(launcher.requests[0].path, "/u/paper.pdf");
}

TEST_F(PlacementRequestsTest, KindsChooseWhatIsOpened) {
  placement.placeRequested(R"({"kind":"app","path":"/usr/share/applications/x.desktop"})");
  placement.placeRequested(R"({"kind":"reveal","path":"/u/paper.pdf"})");
  placement.placeRequested(R"({"kind":"bogus","path":"/u/a.pdf"})");
  placement.placeRequested(R"({"kind":7,"path":"/u/b.pdf"})");
  ASSERT_EQ(launcher.requests.size(), 4u);
  EXPECT_EQ(launcher.requests[0].what, "application");
  EXPECT_EQ(launcher.requests[0].path, "/usr/share/applications/x.desktop");
  EXPECT_EQ(launcher.requests[1].what, "reveal");
  EXPECT_EQ(launcher.requests[2].what, "file");
  EXPECT_EQ(launcher.requests[3].what, "file");
  EXPECT_EQ(log.messages(),
            (Lines{"place: app /usr/share/applications/x.desktop on screen 0",
                   "place: reveal /u/paper.pdf on screen 0", "place: bogus /u/a.pdf on screen 0",
                   "place: file /u/b.pdf on screen 0"}));
}

TEST_F(PlacementRequestsTest, OpenFailureIsLogged) {
  placement.placeRequested(R"({"path":"/u/paper.pdf"})");
  launcher.answer({0, "No application is registered as handling this file"});
  EXPECT_EQ(log.messages().back(),
            "place: open failed: No application is registered as handling this file");
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PlacementRequestsTest, TinyWindowMovesToTheScreenWithTheFallbackSizeAndIsRaised) {
  unsigned long id = windows.add(500, "paper.pdf", {10, 10, 150, 100});
  placeFile(500);
  EXPECT_EQ(windows.find(id)->frame, kTinyOnSecond);
  EXPECT_EQ(windows.activations, (std::vector<unsigned long>{id}));
  EXPECT_EQ(log.messages().back(),
            "place: pid 500 window to {{2010, 132}, {1100, 760}}: placed (attempt 0)");
}

TEST_F(PlacementRequestsTest, WindowAlreadyOnTheScreenIsNeitherMovedNorRaised) {
  windows.add(500, "paper.pdf", {2000, 100, 800, 600});
  placeFile(500);
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(windows.activations.empty());
  EXPECT_EQ(log.messages(), (Lines{"place: file /u/paper.pdf on screen 1"}));
}

TEST_F(PlacementRequestsTest, RefusedFrameIsLoggedAsRefused) {
  unsigned long id = windows.add(500, "paper.pdf", {10, 10, 800, 600});
  windows.refusing.insert(id);
  placeFile(500);
  EXPECT_EQ(log.messages().back(),
            "place: pid 500 window to {{2160, 212}, {800, 600}}: REFUSED (attempt 0)");
}

TEST_F(PlacementRequestsTest, OnlyTheFirstNormalWindowIsPlaced) {
  windows.add(500, "dialog", {10, 10, 300, 300}, /*normal=*/false);
  unsigned long first = windows.add(500, "one", {10, 10, 800, 600});
  unsigned long second = windows.add(500, "two", {10, 10, 800, 600});
  placeFile(500);
  EXPECT_EQ(windows.frame_writes.size(), 1u);
  EXPECT_EQ(windows.frame_writes[0].id, first);
  EXPECT_EQ(windows.find(second)->frame, (Rect{10, 10, 800, 600}));
}

TEST_F(PlacementRequestsTest, WaitsForTheWindowAndPlacesItWhenItComes) {
  windows.live_pids.insert(500);
  placeFile(500);
  scheduler.advance(0.55); // attempts 1 to 5 find nothing
  EXPECT_TRUE(windows.frame_writes.empty());
  windows.add(500, "paper.pdf", {10, 10, 800, 600});
  scheduler.advance(0.1);
  EXPECT_EQ(log.messages().back(),
            "place: pid 500 window to {{2160, 212}, {800, 600}}: placed (attempt 6)");
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PlacementRequestsTest, GivesUpAfterFortyRetriesWithTheWindowList) {
  windows.live_pids.insert(500);
  windows.add(500, "Print", {10, 10, 300, 200}, /*normal=*/false);
  placeFile(500);
  scheduler.advance(3.95);
  EXPECT_EQ(scheduler.pending(), 1u); // the fortieth retry is still to come
  scheduler.runAll();
  EXPECT_NEAR(scheduler.now(), 40 * 0.1, 1e-9);
  EXPECT_EQ(log.messages(),
            (Lines{"place: file /u/paper.pdf on screen 1",
                   "place: gave up waiting for a window of pid 500",
                   "place:   pid 500 has 1 window(s)", "place:   [0] title=Print doc=(none)"}));
}

TEST_F(PlacementRequestsTest, GivingUpOnAProcessThatIsGoneSaysItCannotBeAddressed) {
  placeFile(501);
  scheduler.runAll();
  EXPECT_EQ(log.messages(), (Lines{"place: file /u/paper.pdf on screen 1",
                                   "place: gave up waiting for a window of pid 501",
                                   "place:   could not address pid 501"}));
}

TEST_F(PlacementRequestsTest, FileHandedToARunningInstanceIsFoundByItsTitle) {
  // The launched process handed the file over and exited; the instance
  // that runs already shows it.
  windows.add(600, "notes.txt", {10, 10, 800, 600});
  unsigned long shown = windows.add(600, "paper.pdf — Viewer", {10, 10, 800, 600});
  placeFile(500);
  EXPECT_EQ(windows.frame_writes.size(), 1u);
  EXPECT_EQ(windows.frame_writes[0].id, shown);
  EXPECT_EQ(log.messages().back(),
            "place: pid 600 window to {{2160, 212}, {800, 600}}: placed (attempt 0)");
}

TEST_F(PlacementRequestsTest, AnUnrelatedWindowThatAppearsMeanwhileIsNeitherMovedNorFocused) {
  // An application that shows no window of its own (it exits at once);
  // meanwhile another program opens a window.
  windows.add(600, "Old window", {10, 10, 800, 600});
  placement.placeRequested(R"({"kind":"app","path":"/bin/true","screen":1})");
  launcher.answer({700, std::nullopt});
  scheduler.advance(0.2);
  windows.add(600, "Unrelated window", {10, 10, 800, 600});
  scheduler.runAll();
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(windows.activations.empty());
  EXPECT_EQ(log.messages(), (Lines{"place: app /bin/true on screen 1",
                                   "place: gave up waiting for a window of pid 700",
                                   "place:   could not address pid 700"}));
}

TEST_F(PlacementRequestsTest, AnApplicationStartedWithoutAPidIsFoundOnlyByItsName) {
  // Started through D-Bus activation: no pid. A window that only appeared
  // after the request is not the request's; one that the title rule names
  // is.
  placement.placeRequested(R"({"kind":"app","path":"/usr/bin/viewer","screen":1})");
  launcher.answer({0, std::nullopt});
  windows.add(600, "Another program", {10, 10, 800, 600});
  scheduler.advance(0.2);
  EXPECT_TRUE(windows.frame_writes.empty());
  unsigned long named = windows.add(610, "viewer — untitled", {10, 10, 800, 600});
  scheduler.advance(0.1);
  ASSERT_EQ(windows.frame_writes.size(), 1u);
  EXPECT_EQ(windows.frame_writes[0].id, named);
  EXPECT_EQ(windows.activations, (std::vector<unsigned long>{named}));
  EXPECT_EQ(log.messages().back(),
            "place: pid 610 window to {{2160, 212}, {800, 600}}: placed (attempt 3)");
}

TEST_F(PlacementRequestsTest, AFileWhoseViewerShowsNoWindowLeavesNewWindowsAlone) {
  windows.live_pids.insert(500);
  placeFile(500);
  scheduler.advance(0.3);
  windows.add(600, "Some other program", {10, 10, 800, 600});
  scheduler.runAll();
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(windows.activations.empty());
  EXPECT_EQ(log.messages()[1], "place: gave up waiting for a window of pid 500");
}

TEST_F(PlacementRequestsTest, RevealTakesTheFileManagerWindowOfTheFolder) {
  // The file manager hands the request to its running instance, which
  // shows the folder in a window titled with its name.
  placement.placeRequested(R"({"kind":"reveal","path":"/u/papers/paper.pdf","screen":1})");
  launcher.answer({800, std::nullopt});
  windows.add(600, "Unrelated", {10, 10, 800, 600});
  unsigned long folder = windows.add(900, "papers", {10, 10, 800, 600});
  scheduler.advance(0.1);
  ASSERT_EQ(windows.frame_writes.size(), 1u);
  EXPECT_EQ(windows.frame_writes[0].id, folder);
}

TEST_F(PlacementRequestsTest, FrontOfAnApplicationThatIsNotRunning) {
  placement.placeRequested(R"({"kind":"front","path":"org.example.Nothing"})");
  EXPECT_EQ(log.messages(), (Lines{"place: front org.example.Nothing on screen 0",
                                   "place: org.example.Nothing is not running"}));
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PlacementRequestsTest, FrontPlacesTheNewWindowOfTheRunningApplication) {
  windows.applications["xterm"] = {700};
  unsigned long old = windows.add(700, "old", {10, 10, 800, 600});
  placement.placeRequested(R"({"kind":"front","path":"xterm","screen":1})");
  scheduler.advance(0.3);
  EXPECT_TRUE(windows.frame_writes.empty());
  unsigned long fresh = windows.add(700, "new", {10, 10, 800, 600});
  scheduler.advance(0.1);
  ASSERT_EQ(windows.frame_writes.size(), 1u);
  EXPECT_EQ(windows.frame_writes[0].id, fresh);
  EXPECT_EQ(windows.find(old)->frame, (Rect{10, 10, 800, 600}));
  EXPECT_EQ(log.messages().back(),
            "place: pid 700 window to {{2160, 212}, {800, 600}}: placed (attempt 0)");
}

TEST_F(PlacementRequestsTest, FrontGivesUpWhenNoNewWindowComes) {
  windows.applications["xterm"] = {700};
  windows.add(700, "old", {10, 10, 800, 600});
  placement.placeRequested(R"({"kind":"front","path":"xterm","screen":1})");
  scheduler.runAll();
  EXPECT_NEAR(scheduler.now(), 40 * 0.1, 1e-9);
  EXPECT_EQ(log.messages(),
            (Lines{"place: front xterm on screen 1", "place: pid 700 made no new window in time"}));
  EXPECT_TRUE(windows.frame_writes.empty());
}

TEST_F(PlacementRequestsTest, HostilePathsAreOpenedAsGivenAndLoggedOnOneLine) {
  std::string huge(1 << 20, 'a');
  placement.placeRequested(R"({"path":"/u/evil\n12:00:00  place: forged.pdf"})");
  placement.placeRequested(nlohmann::json{{"path", "/" + huge}}.dump());
  ASSERT_EQ(launcher.requests.size(), 2u);
  EXPECT_EQ(launcher.requests[0].path, "/u/evil\n12:00:00  place: forged.pdf");
  EXPECT_EQ(launcher.requests[1].path, "/" + huge);
  Lines lines = log.messages();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "place: file /u/evil\\n12:00:00  place: forged.pdf on screen 0");
  EXPECT_LT(lines[1].size(), 5000u);
}

TEST_F(PlacementRequestsTest, TileRequestHandsThePathToTheAskSplit) {
  placement.tileRequested("");
  placement.tileRequested("/u/paper.pdf");
  EXPECT_EQ(log.messages(), (Lines{"tile note: no path", "tile note: /u/paper.pdf"}));
  EXPECT_EQ(ask_splits, (std::vector<std::string>{"/u/paper.pdf"}));
}

// The second monitor left of, right of and above the primary: the placed
// frame in desktop coordinates and where it lands in X11's space.
struct Arrangement {
  const char* name;
  Rect primary_x11, second_x11;
  Rect placed_x11;
};

class SecondMonitorTest : public PlacementRequestsTest,
                          public ::testing::WithParamInterface<Arrangement> {};

TEST_P(SecondMonitorTest, TinyWindowIsCentredOnTheSecondMonitor) {
  const Arrangement& a = GetParam();
  Rect primary = DesktopRectFromTopLeft(a.primary_x11, a.primary_x11);
  Rect second = DesktopRectFromTopLeft(a.second_x11, a.primary_x11);
  screens.list = {{0, primary, primary}, {1, second, second}};
  unsigned long id = windows.add(500, "paper.pdf", {10, 10, 150, 100});
  placeFile(500);
  Rect placed = windows.find(id)->frame;
  EXPECT_EQ(placed.size(), (Size{1100, 760}));
  EXPECT_EQ(TopLeftRectFromDesktop(placed, a.primary_x11), a.placed_x11) << a.name;
  // Placed again, it is already there: nothing moves.
  placement.placeWindowsOfPid(500, screens.list[1], 0);
  EXPECT_EQ(windows.frame_writes.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Arrangements, SecondMonitorTest,
    ::testing::Values(
        Arrangement{"left", {1280, 0, 1920, 1080}, {0, 0, 1280, 1024}, {90, 132, 1100, 760}},
        Arrangement{"right", {0, 0, 1920, 1080}, {1920, 0, 1280, 1024}, {2010, 132, 1100, 760}},
        Arrangement{"above", {0, 1024, 1920, 1080}, {0, 0, 1280, 1024}, {90, 132, 1100, 760}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orvane
