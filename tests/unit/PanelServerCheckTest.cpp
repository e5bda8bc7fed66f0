#include "capture/PanelServerCheck.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
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

long ThreadId() {
  return long(syscall(SYS_gettid));
}

// The times the thread has gone to sleep and woken since it started.
long Switches(long tid) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  std::string line;
  long count = -1;
  while (std::getline(status, line)) {
    long value = 0;
    if (sscanf(line.c_str(), "voluntary_ctxt_switches: %ld", &value) == 1)
      count = (count < 0 ? 0 : count) + value;
    else if (sscanf(line.c_str(), "nonvoluntary_ctxt_switches: %ld", &value) == 1)
      count = (count < 0 ? 0 : count) + value;
  }
  return count;
}

bool ThreadGone(long tid) {
  std::string task = "/proc/self/task/" + std::to_string(tid);
  for (int i = 0; i < 500; ++i) {
    if (access(task.c_str(), F_OK) != 0)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST(PanelServerCheckTest, EveryCheckRunsOnOneWorkerThatIsKept) {
  std::vector<long> ran_on;
  PanelServerCheck check([&ran_on]() -> PanelServerCheck::Check {
    return [&ran_on] { ran_on.push_back(ThreadId()); };
  });
  for (int i = 0; i < 4; ++i) {
    check.start();
    check.finish();
  }
  check.finish(); // a load without a started check
  ASSERT_EQ(ran_on.size(), 5U);
  EXPECT_NE(ran_on[0], ThreadId());
  for (long tid : ran_on)
    EXPECT_EQ(tid, ran_on[0]);
  // Kept between the checks, asleep: it does not wake while no check comes.
  EXPECT_EQ(access(("/proc/self/task/" + std::to_string(ran_on[0])).c_str(), F_OK), 0);
  // The last check has handed its end over before the worker went back to
  // sleep: it is counted once it has (its count stands still for a moment;
  // a worker that woke on its own every few milliseconds never would).
  long before = Switches(ran_on[0]);
  for (int i = 0; i < 100; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    long now = Switches(ran_on[0]);
    if (now == before)
      break;
    before = now;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_GE(before, 0);
  EXPECT_EQ(Switches(ran_on[0]), before);
}

TEST(PanelServerCheckTest, NoWorkerBeforeTheFirstCheck) {
  std::atomic<int> made{0};
  {
    PanelServerCheck check([&made]() -> PanelServerCheck::Check {
      ++made;
      return [] {};
    });
    EXPECT_FALSE(check.started());
  }
  EXPECT_EQ(made, 0);
}

TEST(PanelServerCheckTest, GoingAwayDuringACheckDoesNotWaitAndTheWorkerEndsAfterIt) {
  std::promise<long> entered;
  std::promise<void> release;
  std::shared_future<void> go = release.get_future().share();
  std::atomic<bool> ended{false};
  auto check = std::make_unique<PanelServerCheck>([&]() -> PanelServerCheck::Check {
    return [&entered, go, &ended] {
      entered.set_value(ThreadId());
      go.wait();
      ended = true;
    };
  });
  check->start();
  long worker = entered.get_future().get();
  check.reset(); // returns while the check still runs
  EXPECT_FALSE(ended);
  release.set_value();
  EXPECT_TRUE(ThreadGone(worker));
  EXPECT_TRUE(ended);
}

TEST(PanelServerCheckTest, AnEmptyCheckEndsAtOnce) {
  PanelServerCheck check([] { return PanelServerCheck::Check(); });
  check.start();
  check.finish();
  EXPECT_FALSE(check.started());
}

} // namespace
} // namespace orvane
