#include "placement/PaperSplits.h"

#include "capture/Quotes.h"
#include "support/FakeCapture.h"
#include "support/FakeMessageBus.h"
#include "support/FakeScreens.h"
#include "support/FakeWindows.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

constexpr int kViewerPid = 4242;
constexpr char kPaper[] = "/home/u/papers/paper.pdf";

// The sparring window: where it is, and every call in order.
class FakeSplitChat final : public SplitChat {
public:
  bool isFullScreen() const override { return full_screen; }
  void leaveFullScreen() override {
    calls.push_back("leaveFullScreen");
    full_screen = false;
  }
  std::optional<Screen> screen() const override { return on_screen; }
  void makeKeyAndOrderFront() override { calls.push_back("makeKeyAndOrderFront"); }
  void setFrame(const Rect& to) override {
    calls.push_back("setFrame " + RectText(to));
    if (slow_window_manager)
      asked_ = to;
    else
      frame_ = to;
  }
  void orderFrontRegardless() override { calls.push_back("orderFrontRegardless"); }
  Rect frame() const override { return frame_; }
  void whenFrameApplied(const Rect& to, std::function<void()> applied) override {
    if (frame_ == to)
      applied();
    else
      waiting_.emplace_back(to, std::move(applied));
  }
  // The window manager applies the frame asked for, later.
  void applyFrame() {
    frame_ = asked_;
    auto waiting = std::move(waiting_);
    for (auto& [to, applied] : waiting)
      if (frame_ == to)
        applied();
  }

  // A window manager that applies a frame only when the test says so.
  bool slow_window_manager = false;
  Rect asked_;
  std::vector<std::pair<Rect, std::function<void()>>> waiting_;
  bool full_screen = false;
  std::optional<Screen> on_screen;
  std::vector<std::string> calls;
  Rect frame_;
};

class PaperSplitsTest : public ::testing::Test {
protected:
  PaperSplitsTest() { windows.live_pids.insert(kViewerPid); }

  unsigned long viewerWindow(int pid = kViewerPid, const std::string& title = "paper.pdf") {
    return windows.add(pid, title, {100, 100, 800, 600});
  }
  Rect frameOf(unsigned long id) { return windows.find(id)->frame; }
  long count(const std::string& call) const {
    return std::count(chat.calls.begin(), chat.calls.end(), call);
  }
  bool logged(const std::string& line) const {
    auto all = log.messages();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  // What the ask notification carried.
  nlohmann::json lastAsk() const {
    EXPECT_FALSE(bus.posted.empty());
    return bus.posted.empty() ? nlohmann::json() : nlohmann::json::parse(bus.posted.back().second);
  }

  LogCapture log;
  FakeScreens screens;
  FakeWindows windows;
  FakeLauncher launcher;
  VirtualScheduler scheduler;
  FakeSplitChat chat;
  FakeCapture capture;
  FakeMessageBus bus;
  EventDelivery events{[] { return std::string("http://127.0.0.1:8000"); }};
  struct NoChat final : QuoteChat {
    bool exists() const override { return false; }
    bool isVisible() const override { return false; }
    void bringBack() override {}
    void evaluateScript(const std::string&) override {}
  } quote_chat;
  std::vector<std::string> attention_order;
  std::unique_ptr<Quotes> quotes;
  PaperSplits splits{PaperSplitSeams{windows, screens, launcher, scheduler, chat,
                                     [this] {
                                       attention_order.push_back(
                                           "point with " +
                                           std::to_string(launcher.requests.size()) + " launches");
                                       return capture.attentionPoint();
                                     },
                                     [this](const std::string& doc, int pid, Point point) {
                                       quotes->askDesktopWith(std::string(), doc, pid, point);
                                     }}};

  void SetUp() override {
    quotes = std::make_unique<Quotes>(QuotesContext{
        capture, screens, bus, events, quote_chat, [] { return PageRef(); },
        [] { return std::optional<std::string>(); }, [] {},
        [this](const std::string& path, int pid, const std::optional<Screen>& screen, Rect& free) {
          return splits.tilePaperForAsk(path, pid, screen, free);
        },
        [] { return std::string("/nonexistent/quote.txt"); }});
  }
};

// The viewer split

TEST_F(PaperSplitsTest, TheViewerGetsTheLeftHalfAndTheChatTheRightHalf) {
  unsigned long viewer = viewerWindow();
  splits.openPreviewSplitFor(kPaper);
  ASSERT_EQ(launcher.requests.size(), 1u);
  EXPECT_EQ(launcher.requests[0].what, "viewer");
  EXPECT_EQ(launcher.requests[0].path, kPaper);
  launcher.answer({kViewerPid, std::nullopt});

  // Without a sparring window on a screen, the primary's visible frame.
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_EQ(windows.activations, std::vector<unsigned long>{viewer});
  EXPECT_EQ(chat.calls,
            (std::vector<std::string>{"makeKeyAndOrderFront", "setFrame {{960, 0}, {960, 1050}}",
                                      "orderFrontRegardless"}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "split: looking for pid 4242 showing /home/u/papers/paper.pdf",
                "split: preview=placed raise=ok, chat asked {{960, 0}, {960, 1050}} got {{960, "
                "0}, {960, 1050}} (attempt 0)"}));
}

TEST_F(PaperSplitsTest, TheChatsFrameIsReadAfterTheWindowManagerAppliedIt) {
  chat.slow_window_manager = true;
  chat.frame_ = {80, 50, 1440, 900};
  viewerWindow();
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  // Asked, not yet applied: nothing is logged with the old frame.
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "split: looking for pid 4242 showing /home/u/papers/paper.pdf"}));
  scheduler.advance(0.1);
  chat.applyFrame();
  EXPECT_EQ(log.messages().back(), "split: preview=placed raise=ok, chat asked {{960, 0}, {960, "
                                   "1050}} got {{960, 0}, {960, 1050}} (attempt 0)");
  // The wait's time limit passes later without a second line.
  scheduler.advance(1.0);
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(PaperSplitsTest, AWindowManagerThatNeverAppliesTheFrameIsWaitedForAShortWhile) {
  chat.slow_window_manager = true;
  chat.frame_ = {80, 50, 1440, 900};
  viewerWindow();
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  scheduler.advance(kChatFrameWait - 0.01);
  EXPECT_EQ(log.messages().size(), 1u);
  scheduler.advance(0.02);
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages().back(), "split: preview=placed raise=ok, chat asked {{960, 0}, {960, "
                                   "1050}} got {{80, 50}, {1440, 900}} (attempt 0)");
  chat.applyFrame();
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(PaperSplitsTest, APathWithALineBreakIsLookedForOnOneLogLine) {
  const std::string evil = "/home/u/a\n00:00:00  update: installed.pdf";
  splits.askDesktopForFile(evil, kViewerPid, {0, 0}, 0);
  std::string text = TempDir::Read(log.path());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "ask split: looking for pid 4242 showing /home/u/a\\n00:00:00  "
                                "update: installed.pdf"}));
}

TEST_F(PaperSplitsTest, AChatInFullScreenLeavesItBeforeItGetsItsHalf) {
  viewerWindow();
  chat.full_screen = true;
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  ASSERT_GE(chat.calls.size(), 3u);
  EXPECT_EQ(chat.calls[0], "leaveFullScreen");
  auto set = std::find(chat.calls.begin(), chat.calls.end(), "setFrame {{960, 0}, {960, 1050}}");
  ASSERT_NE(set, chat.calls.end());
  EXPECT_LT(std::find(chat.calls.begin(), chat.calls.end(), "leaveFullScreen"), set);
  EXPECT_FALSE(chat.full_screen);
}

TEST_F(PaperSplitsTest, AChatNotInFullScreenIsNotToggled) {
  viewerWindow();
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  EXPECT_EQ(count("leaveFullScreen"), 0);
}

TEST_F(PaperSplitsTest, TheHalvesAreThoseOfTheScreenTheChatIsOn) {
  unsigned long viewer = viewerWindow();
  chat.on_screen = screens.list[1];
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  EXPECT_EQ(frameOf(viewer), (Rect{1920, 0, 640, 1024}));
  EXPECT_EQ(chat.frame(), (Rect{2560, 0, 640, 1024}));
}

TEST_F(PaperSplitsTest, TheWaitTriesEveryTenthOfASecondUntilTheWindowShows) {
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  scheduler.advance(0.35);
  EXPECT_TRUE(windows.frame_writes.empty());
  unsigned long viewer = viewerWindow();
  scheduler.advance(0.1);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_EQ(log.messages().back(),
            "split: preview=placed raise=ok, chat asked {{960, 0}, {960, 1050}} got {{960, 0}, "
            "{960, 1050}} (attempt 4)");
  // "looking for" is said once, on the first try.
  auto lines = log.messages();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& m) { return m.find("looking for") != m.npos; }),
            1);
}

TEST_F(PaperSplitsTest, AViewerThatNeverShowsTheFileIsGivenUpAfterAttempt100WithItsWindowsLogged) {
  windows.add(kViewerPid, "other.pdf", {0, 0, 400, 300});
  splits.openPreviewSplitFor(kPaper);
  launcher.answer({kViewerPid, std::nullopt});
  // Attempt 99 is at 9.9 s: not yet.
  scheduler.advance(9.95);
  EXPECT_FALSE(logged("split: gave up waiting for Preview's window for paper.pdf"));
  EXPECT_EQ(scheduler.pending(), 1u);
  // Attempt 100, at 10 s, is the last.
  scheduler.advance(0.1);
  auto lines = log.messages();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "split: looking for pid 4242 showing /home/u/papers/paper.pdf");
  EXPECT_EQ(lines[1], "split: gave up waiting for Preview's window for paper.pdf");
  EXPECT_EQ(lines[2], "split:   pid 4242 has 1 window(s)");
  EXPECT_EQ(lines[3].rfind("split:   [0] title=other.pdf doc=", 0), 0u) << lines[3];
  EXPECT_EQ(scheduler.pending(), 0u);
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(chat.calls.empty());
}

TEST_F(PaperSplitsTest, TheViewerIsHeldForFourChecksPositionOnly) {
  unsigned long viewer = viewerWindow();
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  // The viewer moves its window back right after it was placed.
  windows.find(viewer)->frame = {300, 0, 960, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_TRUE(logged("split: the window drifted to 300,30 960x1050 — put it back"));
  // A resize without a move is left alone by this hold.
  windows.find(viewer)->frame = {0, 0, 700, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 700, 1050}));
  // 2 points off is within the tolerance, 2.5 is not.
  windows.find(viewer)->frame = {2, 0, 700, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{2, 0, 700, 1050}));
  windows.find(viewer)->frame = {2.5, 0, 700, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  // Four checks, each bringing the chat to the front; then nothing.
  EXPECT_EQ(count("orderFrontRegardless"), 1 + 4);
  EXPECT_EQ(scheduler.pending(), 0u);
  windows.find(viewer)->frame = {500, 0, 960, 1050};
  scheduler.advance(5);
  EXPECT_EQ(frameOf(viewer), (Rect{500, 0, 960, 1050}));
}

TEST_F(PaperSplitsTest, AFrameTheViewerRefusesIsLoggedAsRefused) {
  unsigned long viewer = viewerWindow();
  windows.refusing.insert(viewer);
  splits.tileWithPreview(kViewerPid, kPaper, 0);
  EXPECT_EQ(log.messages().back(),
            "split: preview=REFUSED raise=ok, chat asked {{960, 0}, {960, 1050}} got {{960, 0}, "
            "{960, 1050}} (attempt 0)");
}

TEST_F(PaperSplitsTest, AViewerHandingTheFileToItsRunningInstanceIsStillFound) {
  // The launched process leaves at once; the running instance shows the file.
  windows.live_pids.clear();
  unsigned long viewer = windows.add(5151, "paper.pdf", {100, 100, 800, 600});
  splits.openPreviewSplitFor(kPaper);
  launcher.answer({kViewerPid, std::nullopt});
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  // The hold follows the window's own process.
  windows.find(viewer)->frame = {300, 0, 960, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
}

TEST_F(PaperSplitsTest, NoViewerAndAFailedOpenEndInTheirLines) {
  splits.openPreviewSplitFor(kPaper);
  launcher.answer({0, std::string("no application for application/pdf"), true});
  splits.openPreviewSplitFor(kPaper);
  launcher.answer({0, std::string("Failed to execute child process"), false});
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"split: Preview not installed?",
                                      "split: open failed: Failed to execute child process"}));
  EXPECT_EQ(scheduler.pending(), 0u);
  EXPECT_TRUE(chat.calls.empty());
}

TEST_F(PaperSplitsTest, HostilePathsAreWaitedForAndGivenUpWithoutHarm) {
  std::string huge = "/tmp/" + std::string(1 << 20, 'a') + ".pdf";
  std::vector<std::string> paths = {huge, "relative/../../paper.pdf", "/tmp/line\nbreak.pdf", "/",
                                    "",   "/tmp/%@%d%s.pdf"};
  viewerWindow(kViewerPid, "unrelated window");
  for (const auto& path : paths) {
    splits.openPreviewSplitFor(path);
    launcher.answer({kViewerPid, std::nullopt});
  }
  scheduler.advance(11);
  EXPECT_EQ(scheduler.pending(), 0u);
  EXPECT_TRUE(windows.frame_writes.empty());
  long given_up = 0;
  for (const auto& line : log.messages())
    given_up += line.rfind("split: gave up waiting for Preview's window for ", 0) == 0;
  EXPECT_EQ(given_up, long(paths.size()));
  EXPECT_TRUE(logged("split: gave up waiting for Preview's window for %@%d%s.pdf"));
}

// The ask split

TEST_F(PaperSplitsTest, TheAskSplitTakesTheAttentionPointBeforeOpeningTheViewer) {
  capture.point = {2400, 500};
  unsigned long viewer = viewerWindow();
  splits.openAskSplitFor(kPaper);
  EXPECT_EQ(attention_order, std::vector<std::string>{"point with 0 launches"});
  // The viewer comes to the front; where the user looks no longer matters.
  capture.point = {10, 10};
  launcher.answer({kViewerPid, std::nullopt});
  // The paper went to the second monitor, where the user looked.
  EXPECT_EQ(frameOf(viewer), (Rect{1920, 0, 640, 1024}));
  auto ask = lastAsk();
  EXPECT_EQ(ask["x"], 2400);
  EXPECT_EQ(ask["quote"], "");
  EXPECT_EQ(ask["page"], 0);
  EXPECT_EQ(ask["path"], kPaper);
  EXPECT_EQ(ask["splitX"], 0.5);
  EXPECT_EQ(ask["splitW"], 0.5);
}

TEST_F(PaperSplitsTest, AnAskSplitOfA1440WideScreenSendsHalfAndHalf) {
  screens.list = {{0, {0, 0, 1440, 900}, {0, 0, 1440, 875}}};
  capture.point = {700, 400};
  unsigned long viewer = viewerWindow();
  splits.openAskSplitFor(kPaper);
  launcher.answer({kViewerPid, std::nullopt});
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 720, 875}));
  auto ask = lastAsk();
  EXPECT_EQ(ask["splitX"], 0.5);
  EXPECT_EQ(ask["splitW"], 0.5);
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "ask split: looking for pid 4242 showing /home/u/papers/paper.pdf",
                "ask: paper=placed raise=ok fullscreen=no, free half {{720, 0}, {720, 875}}",
                "ask: paper.pdf, 0 chars quoted, to the desktop (split 0.500+0.500)"}));
}

TEST_F(PaperSplitsTest, TheAskSplitWaitGivesUpWithItsOwnLabel) {
  splits.openAskSplitFor(kPaper);
  launcher.answer({kViewerPid, std::nullopt});
  scheduler.advance(10.05);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "ask split: looking for pid 4242 showing /home/u/papers/paper.pdf",
                                "ask split: gave up waiting for Preview's window for paper.pdf"}));
  EXPECT_TRUE(bus.posted.empty());
}

TEST_F(PaperSplitsTest, TheAskSplitWithoutAViewerOrWithAFailedOpen) {
  splits.openAskSplitFor(kPaper);
  launcher.answer({0, std::string("none"), true});
  splits.openAskSplitFor(kPaper);
  launcher.answer({0, std::string("Failed to execute child process"), false});
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"ask split: Preview not installed?",
                                      "ask split: open failed: Failed to execute child process"}));
  EXPECT_TRUE(bus.posted.empty());
}

TEST_F(PaperSplitsTest, APaperInFullScreenIsAskedToLeaveAndHeldForSixteenChecks) {
  unsigned long viewer = viewerWindow();
  windows.find(viewer)->full_screen = true;
  Rect free;
  EXPECT_TRUE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[0], free));
  EXPECT_EQ(windows.full_screen_exits, std::vector<unsigned long>{viewer});
  EXPECT_EQ(free, (Rect{960, 0, 960, 1050}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "ask: the paper was full screen, asked it to leave: ok",
                "ask: paper=placed raise=ok fullscreen=left, free half {{960, 0}, {960, 1050}}"}));
  // Leaving full screen puts the window back where it was before; the 16th
  // check, at 4.8 s, still puts it on its half.
  scheduler.advance(4.65);
  windows.find(viewer)->frame = {100, 100, 800, 600};
  scheduler.advance(0.2);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PaperSplitsTest, APaperNotInFullScreenIsHeldForFourChecksPositionAndSize) {
  unsigned long viewer = viewerWindow();
  Rect free;
  EXPECT_TRUE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[0], free));
  EXPECT_TRUE(windows.full_screen_exits.empty());
  // A resize without a move is put back too.
  windows.find(viewer)->frame = {0, 0, 700, 1050};
  scheduler.advance(0.3);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_TRUE(logged("ask: the window drifted to 0,30 700x1050 — put it back"));
  // The fourth check is at 1.2 s, the last.
  scheduler.advance(0.85);
  windows.find(viewer)->frame = {100, 100, 800, 600};
  scheduler.advance(0.1);
  EXPECT_EQ(frameOf(viewer), (Rect{0, 0, 960, 1050}));
  EXPECT_EQ(scheduler.pending(), 0u);
  windows.find(viewer)->frame = {100, 100, 800, 600};
  scheduler.advance(5);
  EXPECT_EQ(frameOf(viewer), (Rect{100, 100, 800, 600}));
}

TEST_F(PaperSplitsTest, APaperOnTheSecondMonitorGetsThatMonitorsLeftHalf) {
  unsigned long viewer = viewerWindow();
  Rect free;
  EXPECT_TRUE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[1], free));
  EXPECT_EQ(frameOf(viewer), (Rect{1920, 0, 640, 1024}));
  EXPECT_EQ(free, (Rect{2560, 0, 640, 1024}));
}

TEST_F(PaperSplitsTest, ARefusedFrameAnswersFalseUnlessThePaperWasInFullScreen) {
  unsigned long viewer = viewerWindow();
  windows.refusing.insert(viewer);
  Rect free;
  EXPECT_FALSE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[0], free));
  windows.find(viewer)->full_screen = true;
  EXPECT_TRUE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[0], free));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "ask: paper=REFUSED raise=ok fullscreen=no, free half {{960, 0}, {960, 1050}}",
                "ask: the paper was full screen, asked it to leave: REFUSED",
                "ask: paper=REFUSED raise=ok fullscreen=left, free half {{960, 0}, {960, "
                "1050}}"}));
}

TEST_F(PaperSplitsTest, NoFrontApplicationNoScreenOrNoWindowLeaveTheScreenAlone) {
  windows.add(kViewerPid, "other.pdf", {0, 0, 400, 300});
  Rect free{1, 2, 3, 4};
  EXPECT_FALSE(splits.tilePaperForAsk(kPaper, 0, screens.list[0], free));
  EXPECT_FALSE(splits.tilePaperForAsk(kPaper, -7, screens.list[0], free));
  EXPECT_FALSE(splits.tilePaperForAsk(kPaper, kViewerPid, std::nullopt, free));
  EXPECT_FALSE(splits.tilePaperForAsk(kPaper, kViewerPid, screens.list[0], free));
  EXPECT_EQ(free, (Rect{1, 2, 3, 4}));
  auto lines = log.messages();
  ASSERT_EQ(lines.size(), 6u);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(lines[i], "ask: no front app or no screen to split, leaving the screen alone");
  EXPECT_EQ(lines[3], "ask: pid 4242 has no window showing paper.pdf, leaving the screen alone");
  EXPECT_EQ(lines[4], "ask:   pid 4242 has 1 window(s)");
  EXPECT_EQ(lines[5].rfind("ask:   [0] title=other.pdf doc=", 0), 0u) << lines[5];
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PaperSplitsTest, TheHalvesOfAVisibleFrame) {
  EXPECT_EQ(LeftHalf({0, 0, 1440, 875}), (Rect{0, 0, 720, 875}));
  EXPECT_EQ(RightHalf({0, 0, 1440, 875}), (Rect{720, 0, 720, 875}));
  EXPECT_EQ(LeftHalf({-1280, 56, 1281, 968}), (Rect{-1280, 56, 640.5, 968}));
  EXPECT_EQ(RightHalf({-1280, 56, 1281, 968}), (Rect{-639.5, 56, 640.5, 968}));
}

} // namespace
} // namespace orvane
