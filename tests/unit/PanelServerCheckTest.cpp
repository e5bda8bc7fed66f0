#include "capture/PanelServerCheck.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace orvane {
namespace {

// Checks that the test lets end, on the check's own thread.
struct Checks {
  std::atomic<int> made{0};
  std::atomic<int> ended{0};
  std::vector<std::string> given; // what each check was made with (main thread)
  std::string site = "http://127.0.0.1:8000";
  std::promise<std::thread::id> entered;
  std::shared_future<void> go;

  std::function<PanelServerCheck::Check()> maker() {
    return [this]() -> PanelServerCheck::Check {
      ++made;
      given.push_back(site);
      return [this] {
        if (made == 1)
          entered.set_value(std::this_thread::get_id());
        if (go.valid())
          go.wait();
        ++ended;
      };
    };
  }
};

TEST(PanelServerCheckTest, StartReturnsWhileTheCheckRunsOnItsOwnThreadAndFinishWaitsForIt) {
  Checks checks;
  std::promise<void> release;
  checks.go = release.get_future().share();
  PanelServerCheck check(checks.maker());

  check.start(); // the check blocks until released: start must not wait
  EXPECT_TRUE(check.started());
  std::thread::id ran_on = checks.entered.get_future().get();
  EXPECT_NE(ran_on, std::this_thread::get_id());
  EXPECT_EQ(checks.ended, 0);

  // Released from another thread; finish returns only after the check ends.
  std::thread releaser([&release] { release.set_value(); });
  check.finish();
  EXPECT_EQ(checks.ended, 1);
  EXPECT_FALSE(check.started());
  releaser.join();
}

TEST(PanelServerCheckTest, FinishWithoutAStartMakesOneCheckAndWaitsForIt) {
  Checks checks;
  PanelServerCheck check(checks.maker());
  check.finish();
  EXPECT_EQ(checks.made, 1);
  EXPECT_EQ(checks.ended, 1);
}

TEST(PanelServerCheckTest, ASecondStartJoinsTheRunningCheckAndEachLoadChecksAnew) {
  Checks checks;
  PanelServerCheck check(checks.maker());
  check.start();
  check.start();
  check.finish();
  EXPECT_EQ(checks.made, 1);
  // The next load does not reuse the finished check's answer.
  checks.site = "http://localhost:8001";
  check.finish();
  EXPECT_EQ(checks.made, 2);
  EXPECT_EQ(checks.ended, 2);
  EXPECT_EQ(checks.given,
            (std::vector<std::string>{"http://127.0.0.1:8000", "http://localhost:8001"}));
}

TEST(PanelServerCheckTest, AnEmptyCheckEndsAtOnce) {
  PanelServerCheck check([] { return PanelServerCheck::Check(); });
  check.start();
  check.finish();
  EXPECT_FALSE(check.started());
}

} // namespace
} // namespace orvane
