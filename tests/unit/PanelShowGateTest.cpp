#include "capture/PanelShowGate.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

class PanelShowGateTest : public ::testing::Test {
protected:
  std::function<void()> showing(int id) {
    return [this, id] { shown.push_back(id); };
  }
  VirtualScheduler scheduler;
  PanelShowGate gate{scheduler};
  std::vector<int> shown;
};

TEST_F(PanelShowGateTest, WithNoPageOnItsWayThePanelShowsAtOnce) {
  gate.show(showing(1));
  EXPECT_EQ(shown, std::vector<int>{1});
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PanelShowGateTest, ThePanelShowsWhenItsNewPageHasLoadedAndOnlyOnce) {
  gate.loadStarted();
  gate.show(showing(1));
  EXPECT_TRUE(shown.empty());
  EXPECT_TRUE(gate.waiting());
  gate.loadEnded();
  EXPECT_EQ(shown, std::vector<int>{1});
  EXPECT_EQ(scheduler.pending(), 0u); // the limit's timer is gone
  gate.loadEnded();                   // a late second end
  scheduler.runAll();
  EXPECT_EQ(shown, std::vector<int>{1});
}

TEST_F(PanelShowGateTest, APageThatDoesNotLoadInTimeLetsThePanelShowAtTheLimit) {
  gate.loadStarted();
  gate.show(showing(1));
  scheduler.advance(kPanelLoadWait - 0.01);
  EXPECT_TRUE(shown.empty());
  scheduler.advance(0.01);
  EXPECT_EQ(shown, std::vector<int>{1});
  gate.loadEnded();
  EXPECT_EQ(shown, std::vector<int>{1});
  // Shown since: a raise while that page still loads is not held back.
  gate.show(showing(2));
  EXPECT_EQ(shown, (std::vector<int>{1, 2}));
}

TEST_F(PanelShowGateTest, ANewerShowingReplacesTheWaitingOneAndDoesNotPutTheLimitOff) {
  gate.loadStarted();
  gate.show(showing(1));
  scheduler.advance(0.1);
  gate.loadStarted(); // a second press before the first page loaded
  gate.show(showing(2));
  scheduler.advance(kPanelLoadWait - 0.1);
  EXPECT_EQ(shown, std::vector<int>{2});
}

TEST_F(PanelShowGateTest, AHideDropsTheWaitingShowing) {
  gate.loadStarted();
  gate.show(showing(1));
  gate.cancel();
  EXPECT_FALSE(gate.waiting());
  EXPECT_EQ(scheduler.pending(), 0u);
  gate.loadEnded();
  scheduler.runAll();
  EXPECT_TRUE(shown.empty());
}

TEST_F(PanelShowGateTest, EveryLoadHoldsTheNextShowingBackAgain) {
  gate.loadStarted();
  gate.loadEnded();
  gate.show(showing(1));
  EXPECT_EQ(shown, std::vector<int>{1});
  gate.loadStarted();
  gate.show(showing(2));
  EXPECT_EQ(shown, std::vector<int>{1});
  gate.loadEnded();
  EXPECT_EQ(shown, (std::vector<int>{1, 2}));
}

} // namespace
} // namespace orvane
