// The agent's output on its way to a page: real agent processes (shell
// stand-ins), the real turn runner and the real event delivery with its
// batches and back-pressure, and a recording page that runs its scripts
// when the test says so.
#include "agent/AgentTurns.h"
#include "bridge/EventDelivery.h"

#include "support/FakePage.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/TempDir.h"

#include "AgentFixtures.h"

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>

namespace orvane {
namespace {

using ::testing::Contains;
using ::testing::Not;
using json = nlohmann::json;

constexpr char kSite[] = "http://127.0.0.1:8000";

class AgentToPageTest : public ::testing::Test {
protected:
  void SetUp() override { folder_ = root_.path() + "/.spar"; }

  void make(EventDeliveryLimits delivery_limits = {}, AgentTurnLimits turn_limits = {}) {
    delivery_ = std::make_unique<EventDelivery>([] { return std::string(kSite); }, delivery_limits);
    turns_ =
        std::make_unique<AgentTurns>([this] { return claude_; },
                                     [this] {
                                       g_mkdir_with_parents(folder_.c_str(), 0755);
                                       return folder_;
                                     },
                                     [this](const Event& event) { delivery_->sendEvent(event); },
                                     root_.path() + "/home", turn_limits);
    turns_->setEventBatching([this] { delivery_->openBatch(); },
                             [this] { delivery_->closeBatch(); });
    turns_->setBackPressure(
        [this] { return delivery_->isBackedUp(); },
        [this](std::function<void()> resume) { delivery_->whenDrained(std::move(resume)); });
  }

  void TearDown() override {
    stopRunning();
    EndRunningAgents(*turns_);
    turns_.reset();
  }

  void install(const std::string& fixture) { claude_ = InstallAgent(root_.path(), fixture); }

  // A page that says hello: it becomes primary and gets what was queued.
  std::shared_ptr<FakePage> hello() {
    auto page = std::make_shared<FakePage>(std::string(kSite) + "/");
    delivery_->setPrimaryWeb(page);
    for (const Event& event : delivery_->takeQueuedEvents())
      delivery_->sendEvent(event);
    return page;
  }

  // The page runs its scripts on every turn of the main loop from now on,
  // noting the most it was ever behind by.
  void keepRunning(const std::shared_ptr<FakePage>& page) {
    stopRunning();
    running_ = page;
    runner_ = g_timeout_add(
        1,
        [](gpointer data) -> gboolean {
          auto* self = static_cast<AgentToPageTest*>(data);
          if (auto page = self->running_.lock()) {
            self->most_behind_ = std::max(self->most_behind_, page->unfinishedBytes());
            page->finishScripts();
          }
          return G_SOURCE_CONTINUE;
        },
        this);
  }
  void stopRunning() {
    if (runner_)
      g_source_remove(std::exchange(runner_, 0));
  }

  // The page's events once the turn has ended.
  std::vector<json> eventsOnceEnded(const FakePage& page, const std::string& turn, double seconds) {
    EXPECT_TRUE(SpinUntil([&] { return !turns_->claudeTasks().count(turn); }, seconds))
        << "the turn " << turn << " did not end";
    SpinFor(0.05);
    return page.events();
  }
  // A count_lines.sh turn that ended well, its lines 0 to count - 1 on the
  // page once each and in order.
  void expectCountedTurn(const FakePage& page, const std::string& turn, int count, double seconds) {
    std::vector<json> events = eventsOnceEnded(page, turn, seconds);
    ASSERT_TRUE(EndsTheTurn(events));
    EXPECT_EQ(events.back()["code"], 0);
    EXPECT_EQ(LinesIn(events), Numbers(count));
  }

  static std::vector<std::string> LinesIn(const std::vector<json>& events) {
    std::vector<std::string> lines;
    for (const json& event : events)
      if (event["type"] == "claudeLine")
        lines.push_back(event["line"]);
    return lines;
  }
  static bool EndsTheTurn(const std::vector<json>& events) {
    return !events.empty() && events.back()["type"] == "claudeDone";
  }
  static std::vector<std::string> Numbers(int count) {
    std::vector<std::string> numbers;
    numbers.reserve(size_t(count));
    for (int i = 0; i < count; ++i)
      numbers.push_back(std::to_string(i));
    return numbers;
  }

  TempDir root_;
  std::string folder_;
  std::optional<std::string> claude_;
  LogCapture log_;
  std::unique_ptr<EventDelivery> delivery_;
  std::unique_ptr<AgentTurns> turns_;
  std::weak_ptr<FakePage> running_;
  guint runner_ = 0;
  size_t most_behind_ = 0;
};

TEST_F(AgentToPageTest, AMillionLinesReachThePageOnceEachAndInOrder) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 256 << 10;
  make(limits);
  install("count_lines.sh");
  auto page = hello();
  keepRunning(page);
  turns_->runClaude({{"turn", "flood"}, {"args", {"1000000"}}});
  expectCountedTurn(*page, "flood", 1000000, 120);
  // Far fewer scripts than lines, none of them huge, and the page never
  // further behind than the limit and one read of output.
  EXPECT_LT(page->scripts.size(), 10000u);
  for (const std::string& script : page->scripts)
    ASSERT_LE(script.size(), limits.script_bytes + 1024);
  EXPECT_LE(most_behind_, limits.in_flight_bytes + (128 << 10));
}

TEST_F(AgentToPageTest, APageThatRunsNothingStopsTheReadingAndThenGetsEveryLine) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 64 << 10;
  make(limits);
  install("count_lines.sh");
  auto page = hello();
  // About 6.9 MB of output against a page that runs nothing.
  turns_->runClaude({{"turn", "stalled"}, {"args", {"1000000"}}});
  SpinFor(1.5);
  // What the page holds stays near the limit; the rest waits in the pipe,
  // with the agent blocked on it.
  EXPECT_LE(page->unfinishedBytes(), limits.in_flight_bytes + (128 << 10));
  EXPECT_EQ(turns_->claudeTasks().count("stalled"), 1u);
  keepRunning(page);
  expectCountedTurn(*page, "stalled", 1000000, 120);
}

TEST_F(AgentToPageTest, AnAgentThatExitsWhileThePageIsBehindLosesNoLine) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 16 << 10;
  AgentTurnLimits turn_limits;
  turn_limits.drain_seconds = 0.2;
  make(limits, turn_limits);
  install("count_lines.sh");
  auto page = hello();
  // About 108 KB: what is not read fits in the pipe, so the agent exits
  // while its output waits for the page.
  turns_->runClaude({{"turn", "exited"}, {"args", {"20000"}}});
  SpinFor(1.0);
  EXPECT_EQ(turns_->claudeTasks().count("exited"), 1u);
  keepRunning(page);
  expectCountedTurn(*page, "exited", 20000, 30);
  EXPECT_THAT(log_.messages(), Not(Contains(::testing::HasSubstr("left processes"))));
}

TEST_F(AgentToPageTest, AnAgentThatNeverEndsALineArrivesInPiecesEachInAScriptOfItsOwn) {
  EventDeliveryLimits limits;
  limits.script_bytes = 16 << 10;
  AgentTurnLimits turn_limits;
  turn_limits.line_piece = 100000;
  make(limits, turn_limits);
  install("endless_line.sh");
  auto page = hello();
  keepRunning(page);
  const size_t written = 4 << 20;
  turns_->runClaude({{"turn", "endless"}, {"args", {std::to_string(written)}}});
  auto events = eventsOnceEnded(*page, "endless", 60);
  ASSERT_TRUE(EndsTheTurn(events));
  auto pieces = LinesIn(events);
  ASSERT_EQ(pieces.size(), (written + 99999) / 100000);
  std::string whole;
  for (const std::string& piece : pieces) {
    EXPECT_LE(piece.size(), 100000u);
    whole += piece;
  }
  ASSERT_EQ(whole.size(), written);
  bool intact = true;
  for (size_t i = 0; i < whole.size() && intact; ++i)
    intact = whole[i] == "abcdefgh"[i % 8];
  EXPECT_TRUE(intact);
  // Each piece is larger than a script may grow, so each went alone.
  EXPECT_EQ(page->scripts.size(), pieces.size() + 1);
}

// The page goes away (or leaves the site) mid-stream: what it had not been
// handed waits in the queue, reading goes on, and the next page to say
// hello gets the rest, in order.
TEST_F(AgentToPageTest, APageThatGoesAwayMidStreamLeavesTheRestForTheNextPage) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 64 << 10;
  make(limits);
  install("count_lines.sh");
  auto first = hello();
  turns_->runClaude({{"turn", "gone"}, {"args", {"200000"}}});
  ASSERT_TRUE(SpinUntil([&] { return first->unfinishedBytes() > limits.in_flight_bytes; }));
  auto before = first->events();
  EXPECT_FALSE(before.empty());
  first.reset();
  ASSERT_TRUE(SpinUntil([&] { return !turns_->claudeTasks().count("gone"); }, 60));
  auto second = hello();
  SpinFor(0.05);
  auto after = second->events();
  ASSERT_TRUE(EndsTheTurn(after));
  auto lines = LinesIn(before);
  auto rest = LinesIn(after);
  lines.insert(lines.end(), rest.begin(), rest.end());
  EXPECT_EQ(lines, Numbers(200000));
}

TEST_F(AgentToPageTest, APageThatLeavesTheSiteMidStreamLeavesTheRestForTheNextPage) {
  make();
  install("count_lines.sh");
  auto first = hello();
  keepRunning(first);
  turns_->runClaude({{"turn", "away"}, {"args", {"200000"}}});
  ASSERT_TRUE(SpinUntil([&] { return first->scripts.size() >= 3; }));
  first->setAddress("https://elsewhere.example/");
  ASSERT_TRUE(SpinUntil([&] { return !turns_->claudeTasks().count("away"); }, 60));
  auto before = first->events();
  auto second = hello();
  keepRunning(second);
  SpinFor(0.05);
  auto after = second->events();
  ASSERT_TRUE(EndsTheTurn(after));
  auto lines = LinesIn(before);
  auto rest = LinesIn(after);
  EXPECT_FALSE(lines.empty());
  EXPECT_FALSE(rest.empty());
  lines.insert(lines.end(), rest.begin(), rest.end());
  EXPECT_EQ(lines, Numbers(200000));
}

} // namespace
} // namespace orvane
