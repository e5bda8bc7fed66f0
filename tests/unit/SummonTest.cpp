#include "capture/Summon.h"

#include "support/FakeCapture.h"
#include "support/FakeScreens.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

// An activation whose answer the test gives.
class FakeActivation final : public Activation {
public:
  void requestActivation(uint32_t timestamp, Completion completion) override {
    timestamps.push_back(timestamp);
    pending.push_back(std::move(completion));
  }
  void answer(std::optional<std::string> error) {
    ASSERT_FALSE(pending.empty());
    auto completion = std::move(pending.front());
    pending.erase(pending.begin());
    completion(std::move(error));
  }
  std::vector<uint32_t> timestamps;
  std::vector<Completion> pending;
};

struct Presented {
  std::optional<Screen> screen;
  uint32_t timestamp;
};

// What the summon did to the panel, in order: "load:<selection or ->" and
// "present".
class FakePanel final : public SummonPanel {
public:
  bool isKeyInActiveApplication() const override { return visible && key; }
  void hide() override {
    visible = false;
    key = false;
    ++hides;
  }
  std::optional<Screen> keyWindowScreen() const override { return key_screen; }
  void prepareLoad() override {
    ++prepares;
    selections_read_at_prepare = capture ? capture->selection_calls : -1;
    reads_ahead_at_prepare = capture ? capture->reads_ahead : -1;
    front_reads_at_prepare = capture ? capture->front_calls : -1;
    loads_at_prepare = int(loads.size());
  }
  void loadPage(const std::optional<std::string>& selection) override {
    loads.push_back(selection);
    steps.push_back("load:" + selection.value_or("-"));
  }
  void present(const std::optional<Screen>& screen, uint32_t timestamp) override {
    presented.push_back({screen, timestamp});
    steps.push_back("present");
    visible = true;
    key = true;
  }
  bool visible = false;
  bool key = false;
  int hides = 0;
  const FakeCapture* capture = nullptr;
  int prepares = 0;
  int selections_read_at_prepare = -1;
  int reads_ahead_at_prepare = -1;
  int front_reads_at_prepare = -1;
  int loads_at_prepare = -1;
  std::optional<Screen> key_screen;
  std::vector<std::optional<std::string>> loads;
  std::vector<Presented> presented;
  std::vector<std::string> steps;
};

class SummonTest : public ::testing::Test {
protected:
  SummonTest() {
    capture.otherApplication(4242, "Gedit");
    panel.capture = &capture;
  }
  LogCapture log;
  FakeCapture capture;
  FakeScreens screens;
  VirtualScheduler scheduler;
  FakeActivation activation;
  FakePanel panel;
  Summon summon{capture, screens, scheduler, activation, panel};
};

TEST_F(SummonTest, CapturesWhileTheOtherApplicationIsInFrontThenAsksForActivation) {
  capture.selection = "a passage";
  capture.point = {2000, 500}; // on the second screen
  summon.hotkeySummon(123456);
  EXPECT_EQ(capture.selection_calls, 1);
  EXPECT_TRUE(panel.presented.empty()); // waits for the activation
  EXPECT_TRUE(summon.hasPendingSummon());
  EXPECT_EQ(activation.timestamps, std::vector<uint32_t>{123456});
  EXPECT_EQ(log.messages(), std::vector<std::string>{"hotkey: 9 chars from Gedit"});

  // The "activate" that the request brings takes the summon.
  activation.answer(std::nullopt);
  EXPECT_TRUE(panel.presented.empty());
  summon.takePendingSummon();
  EXPECT_EQ(panel.loads, std::vector<std::optional<std::string>>{"a passage"});
  ASSERT_EQ(panel.presented.size(), 1u);
  ASSERT_TRUE(panel.presented[0].screen);
  EXPECT_EQ(panel.presented[0].screen->index, 1);
  EXPECT_EQ(panel.presented[0].timestamp, 123456u);

  // The fallback finds nothing pending.
  scheduler.advance(1.0);
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads.size(), 1u);
}

TEST_F(SummonTest, ThePageStartsLoadingBeforeTheActivationAnswers) {
  capture.selection = "a passage";
  summon.hotkeySummon(10);
  // Loading, not yet shown: the activation has not come back.
  EXPECT_EQ(panel.steps, std::vector<std::string>{"load:a passage"});
  ASSERT_EQ(activation.pending.size(), 1u);
  activation.answer(std::nullopt);
  summon.takePendingSummon();
  EXPECT_EQ(panel.steps, (std::vector<std::string>{"load:a passage", "present"}));
}

TEST_F(SummonTest, ThePageLoadsOnceWhicheverPathShowsThePanel) {
  // The activate.
  capture.selection = "one";
  summon.hotkeySummon(1);
  activation.answer(std::nullopt);
  summon.takePendingSummon();
  scheduler.runAll();
  panel.key = false; // the user went back to the other application
  // A refused activation.
  capture.selection = "two";
  summon.hotkeySummon(2);
  activation.answer(std::string("no such name"));
  summon.takePendingSummon();
  scheduler.runAll();
  panel.key = false;
  // The fallback timer alone.
  capture.selection = "three";
  summon.hotkeySummon(3);
  scheduler.runAll();
  activation.answer(std::nullopt);
  summon.takePendingSummon();
  EXPECT_EQ(panel.steps, (std::vector<std::string>{"load:one", "present", "load:two", "present",
                                                   "load:three", "present"}));
}

TEST_F(SummonTest, ASecondPressBeforeTheFirstIsShownLoadsItsOwnPageAndShowsOnce) {
  capture.selection = "first";
  capture.point = {100, 100};
  summon.hotkeySummon(1);
  capture.selection = "second";
  capture.point = {2000, 500};
  summon.hotkeySummon(2);
  activation.answer(std::nullopt);
  summon.takePendingSummon();
  activation.answer(std::nullopt);
  scheduler.runAll();
  EXPECT_EQ(panel.steps, (std::vector<std::string>{"load:first", "load:second", "present"}));
  ASSERT_EQ(panel.presented.size(), 1u);
  ASSERT_TRUE(panel.presented[0].screen);
  EXPECT_EQ(panel.presented[0].screen->index, 1);
  EXPECT_EQ(panel.presented[0].timestamp, 2u);
}

// The development server's check runs while the selection is read: it is
// started before the capture, and the page is loaded after it.
TEST_F(SummonTest, WhatTheLoadWaitsForStartsBeforeTheCapture) {
  capture.selection = "a passage";
  summon.hotkeySummon(1);
  EXPECT_EQ(panel.prepares, 1);
  EXPECT_EQ(panel.selections_read_at_prepare, 0);
  EXPECT_EQ(panel.loads_at_prepare, 0);
  EXPECT_EQ(capture.selection_calls, 1);
  EXPECT_EQ(panel.loads.size(), 1u);
}

// The other application's answer is the longest wait of a summon: it is
// asked for first, and the rest is done while it comes.
TEST_F(SummonTest, TheSelectionIsAskedForBeforeTheLoadIsPreparedAndTheFrontWindowRead) {
  capture.otherApplication();
  capture.selection = "a passage";
  summon.hotkeySummon(1);
  EXPECT_EQ(panel.reads_ahead_at_prepare, 1);
  EXPECT_EQ(panel.front_reads_at_prepare, 0);
  EXPECT_EQ(capture.reads_ahead, 1);
  EXPECT_TRUE(capture.read_ahead_while_held);
  EXPECT_EQ(panel.prepares, 1);
}

TEST_F(SummonTest, ThisProgramInFrontPreparesTheLoadToo) {
  capture.thisProgram();
  summon.hotkeySummon(1);
  EXPECT_EQ(panel.prepares, 1);
  EXPECT_EQ(panel.loads_at_prepare, 0);
  EXPECT_EQ(panel.loads.size(), 1u);
}

TEST_F(SummonTest, ThePressThatHidesThePanelPreparesNoLoad) {
  panel.visible = true;
  panel.key = true;
  summon.hotkeySummon(1);
  EXPECT_EQ(panel.hides, 1);
  EXPECT_EQ(panel.prepares, 0);
  EXPECT_TRUE(panel.loads.empty());
}

TEST_F(SummonTest, TheSelectionIsReadAheadWhileTheFrontWindowIsHeld) {
  capture.selection = "a passage";
  summon.hotkeySummon(1);
  EXPECT_EQ(capture.reads_ahead, 1);
  EXPECT_TRUE(capture.read_ahead_while_held);
}

TEST_F(SummonTest, OnePressReadsOneFrontWindowForItsChecksAndCapture) {
  capture.selection = "held";
  summon.hotkeySummon(1);
  EXPECT_EQ(capture.holds, 1);
  EXPECT_TRUE(capture.point_while_held);
  EXPECT_TRUE(capture.selection_while_held);
  EXPECT_FALSE(capture.held); // released when the press is handled
}

TEST_F(SummonTest, AHugeSelectionWithControlBytesIsLoadedAsCapturedAndShownOnce) {
  std::string huge(1 << 20, 'a');
  huge += std::string("\0\n&=/?", 6);
  capture.selection = huge;
  summon.hotkeySummon(8);
  scheduler.runAll();
  ASSERT_EQ(panel.loads.size(), 1u);
  EXPECT_EQ(panel.loads[0], huge);
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(log.messages(), std::vector<std::string>{"hotkey: 1048582 chars from Gedit"});
}

TEST_F(SummonTest, ChordLengthCountsUtf16Units) {
  capture.selection = "naïve 😀";
  capture.front.reset(); // no front window known
  summon.hotkeySummon(1);
  EXPECT_EQ(log.messages(), std::vector<std::string>{"hotkey: 8 chars from ?"});
}

TEST_F(SummonTest, NoSelectionWritesNoHotkeyLineAndShowsAnEmptyPanel) {
  summon.hotkeySummon(5);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(panel.loads, std::vector<std::optional<std::string>>{std::nullopt});
  scheduler.advance(0.7);
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads.size(), 1u);
}

TEST_F(SummonTest, FallbackShowsAfterSevenTenthsWhenNoActivateArrives) {
  capture.selection = "x";
  summon.hotkeySummon(77);
  scheduler.advance(0.69);
  EXPECT_TRUE(panel.presented.empty());
  scheduler.advance(0.01);
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.presented[0].timestamp, 77u);
  // A late activation answer and a late reopen find nothing pending.
  activation.answer(std::nullopt);
  summon.takePendingSummon();
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads, std::vector<std::optional<std::string>>{"x"});
}

TEST_F(SummonTest, RefusedActivationShowsDirectlyWithItsLine) {
  capture.selection = "y";
  summon.hotkeySummon(9);
  activation.answer(std::string("The name com.tarnwick.orvane was not provided"));
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads, std::vector<std::optional<std::string>>{"y"});
  EXPECT_EQ(log.messages().back(), "hotkey: LaunchServices refused (The name com.tarnwick.orvane "
                                   "was not provided) — showing directly");
  scheduler.runAll();
  summon.takePendingSummon();
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads.size(), 1u);
}

TEST_F(SummonTest, KeyPanelInTheActiveProgramIsHiddenWithoutACapture) {
  panel.visible = panel.key = true;
  summon.hotkeySummon(3);
  EXPECT_EQ(panel.hides, 1);
  EXPECT_FALSE(panel.visible);
  EXPECT_EQ(capture.selection_calls, 0);
  EXPECT_TRUE(panel.steps.empty()); // nothing loaded, nothing shown
  EXPECT_TRUE(activation.timestamps.empty());
  EXPECT_EQ(scheduler.pending(), 0u);
  EXPECT_FALSE(summon.hasPendingSummon());
}

TEST_F(SummonTest, VisiblePanelWhileAnotherApplicationIsActiveShowsAgainWithAFreshCapture) {
  capture.selection = "first";
  summon.hotkeySummon(1);
  scheduler.advance(0.7);
  ASSERT_EQ(panel.presented.size(), 1u);
  // The user goes back to the other application; the panel stays visible.
  panel.key = false;
  capture.selection = "second";
  summon.hotkeySummon(2);
  EXPECT_EQ(panel.hides, 0);
  EXPECT_EQ(capture.selection_calls, 2);
  scheduler.advance(0.7);
  ASSERT_EQ(panel.presented.size(), 2u);
  EXPECT_EQ(panel.loads, (std::vector<std::optional<std::string>>{"first", "second"}));
  EXPECT_EQ(panel.presented[1].timestamp, 2u);
}

TEST_F(SummonTest, ThisProgramInFrontShowsAtOnceOnTheKeyWindowsScreen) {
  capture.thisProgram();
  capture.selection = "never read";
  panel.key_screen = screens.list[1];
  summon.hotkeySummon(44);
  EXPECT_EQ(panel.steps, (std::vector<std::string>{"load:-", "present"}));
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.presented[0].screen, screens.list[1]);
  EXPECT_EQ(panel.presented[0].timestamp, 44u);
  EXPECT_EQ(capture.selection_calls, 0);
  EXPECT_TRUE(activation.timestamps.empty());
  EXPECT_FALSE(summon.hasPendingSummon());
}

TEST_F(SummonTest, EachOfTheThreePathsShowsTheSummonOnceWhicheverComesFirst) {
  // The activate first, then a refusal answer (impossible in practice, but
  // the summon must not show twice), then the timer.
  capture.selection = "once";
  summon.hotkeySummon(1);
  summon.takePendingSummon();
  activation.answer(std::string("late error"));
  scheduler.runAll();
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.loads.size(), 1u);
}

TEST_F(SummonTest, NoScreensLeaveTheScreenUnknown) {
  screens.list.clear();
  capture.selection = "z";
  summon.hotkeySummon(1);
  scheduler.advance(0.7);
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.presented[0].screen, std::nullopt);
}

TEST_F(SummonTest, TheFallbackDelayIsAParameter) {
  Summon quick(capture, screens, scheduler, activation, panel, 0.05);
  quick.hotkeySummon(1);
  scheduler.advance(0.05);
  EXPECT_EQ(panel.presented.size(), 1u);
}

// Under load the fallback can show the panel before the activation the
// summon asked for arrives; that activate is the summon's own and must not
// be handled as a reopen (which shows the library window over the panel).
TEST_F(SummonTest, ALateActivateOfTheSummonsOwnRequestIsNotAReopen) {
  summon.hotkeySummon(7);
  scheduler.advance(kSummonFallbackDelay);
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_TRUE(summon.handleReopen());
  EXPECT_EQ(panel.presented.size(), 1u);
  activation.answer(std::nullopt);
  // Answered: a later activate is a real reopen.
  EXPECT_FALSE(summon.handleReopen());
  EXPECT_EQ(panel.presented.size(), 1u);
}

TEST_F(SummonTest, TheActivateBeforeTheFallbackShowsThePanelOnce) {
  summon.hotkeySummon(8);
  EXPECT_TRUE(summon.handleReopen());
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_EQ(panel.presented[0].timestamp, 8u);
  activation.answer(std::nullopt);
  scheduler.runAll();
  EXPECT_EQ(panel.presented.size(), 1u);
  EXPECT_FALSE(summon.handleReopen());
}

TEST_F(SummonTest, AReopenWithoutASummonIsTheCallers) {
  EXPECT_FALSE(summon.handleReopen());
  EXPECT_TRUE(panel.presented.empty());
  // A refused activation is answered too: nothing stays in flight.
  summon.hotkeySummon(9);
  activation.answer(std::string("refused"));
  ASSERT_EQ(panel.presented.size(), 1u);
  EXPECT_FALSE(summon.handleReopen());
}

} // namespace
} // namespace orvane
