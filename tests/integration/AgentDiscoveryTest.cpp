// Finding the agent's executable: the usual places walked in order under a
// throwaway home, and the login shell's answer from a stand-in shell
// (agent_fixtures/login_shell.sh) run for real on its own thread.
#include "agent/ClaudeDiscovery.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentFixtures.h"
#include "support/MainLoop.h"
#include <sys/resource.h>
#include <sys/stat.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using json = nlohmann::json;

class AgentDiscoveryTest : public ::testing::Test {
protected:
  AgentDiscoveryTest() {
    home_ = root_.path() + "/home";
    g_mkdir_with_parents(home_.c_str(), 0755);
    // The standard list with its two absolute places moved under the test's
    // folder, where they can be made safely.
    candidates_ = StandardClaudeCandidates(home_);
    candidates_[2] = root_.path() + "/opt/homebrew/bin/claude";
    candidates_[3] = root_.path() + "/usr/local/bin/claude";
    shell_ = root_.path() + "/shell/login";
    TempDir::WriteFile(shell_, TempDir::Read(AgentFixturePath("login_shell.sh")));
    chmod(shell_.c_str(), 0755);
  }

  std::unique_ptr<ClaudeDiscovery> discovery(bool has_account = true) {
    return std::make_unique<ClaudeDiscovery>(
        [has_account] { return has_account; },
        [this] {
          std::string folder = root_.path() + "/library/.spar";
          g_mkdir_with_parents(folder.c_str(), 0755);
          return folder;
        },
        [this](const Event& event) { events_.push_back(event); }, home_, shell_, candidates_);
  }

  // Makes a file at `path`, executable or not.
  std::string make(const std::string& path, mode_t mode = 0755) {
    TempDir::WriteFile(path, "#!/bin/sh\necho claude\n");
    chmod(path.c_str(), mode);
    return path;
  }
  void answer(const std::string& text) { TempDir::WriteFile(root_.path() + "/shell/answer", text); }
  // While "hold" exists the stand-in shell waits before answering.
  void hold() { TempDir::WriteFile(root_.path() + "/shell/hold", ""); }
  void release() { g_unlink((root_.path() + "/shell/hold").c_str()); }

  TempDir root_;
  std::string home_;
  std::string shell_;
  std::vector<std::string> candidates_;
  std::vector<Event> events_;
  LogCapture log_;
};

TEST_F(AgentDiscoveryTest, FirstPlaceWinsOverTheFourth) {
  std::string first = make(candidates_[0]);
  make(candidates_[3]);
  answer("/should/not/be/asked\n");
  auto finder = discovery();
  finder->findClaude();
  EXPECT_EQ(finder->claudePath(), first);
  SpinFor(0.3);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: " + first));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(AgentDiscoveryTest, PlaceWithoutExecutePermissionIsSkipped) {
  make(candidates_[0], 0644);
  std::string fourth = make(candidates_[3]);
  auto finder = discovery();
  finder->findClaude();
  EXPECT_EQ(finder->claudePath(), fourth);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: " + fourth));
}

TEST_F(AgentDiscoveryTest, SymbolicLinkToAnExecutableCounts) {
  std::string real = make(root_.path() + "/real/claude-2.1");
  g_mkdir_with_parents((home_ + "/.claude/local").c_str(), 0755);
  ASSERT_EQ(symlink(real.c_str(), candidates_[1].c_str()), 0);
  auto finder = discovery();
  finder->findClaude();
  EXPECT_EQ(finder->claudePath(), candidates_[1]);
}

TEST_F(AgentDiscoveryTest, StandardPlacesAreUnderTheHomeFolderGiven) {
  std::string local = make(home_ + "/.local/bin/claude");
  ClaudeDiscovery finder([] { return true; }, [] { return std::string("/unused"); },
                         [this](const Event& event) { events_.push_back(event); }, home_, shell_);
  finder.findClaude();
  EXPECT_EQ(finder.claudePath(), local);
}

TEST_F(AgentDiscoveryTest, LoginShellFindsItOffTheMainLoop) {
  std::string elsewhere = make(root_.path() + "/elsewhere/bin/claude");
  answer(elsewhere + "\n");
  hold();
  auto finder = discovery();
  finder->findClaude();
  // findClaude returned while the shell is still held: it did not wait.
  EXPECT_EQ(finder->claudePath(), std::nullopt);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: not in the usual places, asking the shell"));
  release();
  ASSERT_TRUE(SpinUntil([&] { return finder->claudePath().has_value(); }));
  EXPECT_EQ(finder->claudePath(), elsewhere);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: not in the usual places, asking the shell",
                                           "claude: " + elsewhere + " (from the shell)"));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0], json({{"type", "claudeStatus"},
                              {"path", elsewhere},
                              {"sparRoot", root_.path() + "/library/.spar"}}));
  EXPECT_TRUE(g_file_test((root_.path() + "/library/.spar").c_str(), G_FILE_TEST_IS_DIR));
}

TEST_F(AgentDiscoveryTest, LoginShellRunsAtABackgroundPriority) {
  std::string elsewhere = make(root_.path() + "/elsewhere/bin/claude");
  answer(elsewhere + "\n");
  auto finder = discovery();
  finder->findClaude();
  ASSERT_TRUE(SpinUntil([&] { return finder->claudePath().has_value(); }));
  errno = 0;
  int ours = getpriority(PRIO_PROCESS, 0);
  ASSERT_EQ(errno, 0);
  int expected = std::min(ours + kShellNiceness, 19);
  EXPECT_EQ(TempDir::Read(root_.path() + "/shell/niceness"), std::to_string(expected) + "\n");
  // Ours is unchanged: only the shell was lowered.
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), ours);
}

TEST_F(AgentDiscoveryTest, ShellAnswerIsTrimmedOfWhiteSpace) {
  std::string elsewhere = make(root_.path() + "/elsewhere/claude");
  answer("  \t" + elsewhere + " \r\n\n");
  auto finder = discovery();
  finder->findClaude();
  ASSERT_TRUE(SpinUntil([&] { return log_.messages().size() == 2; }));
  EXPECT_EQ(finder->claudePath(), elsewhere);
}

TEST_F(AgentDiscoveryTest, ShellThatPrintsAnAliasOrNothingMeansNotInstalled) {
  std::string real = make(root_.path() + "/elsewhere/claude");
  for (std::string printed : {std::string("alias claude='npx @anthropic-ai/claude-code'\n"),
                              std::string(""), std::string("claude\n"), real + "\n" + real + "\n",
                              make(root_.path() + "/plain", 0644), std::string("\xff\xfe\n")}) {
    events_.clear();
    answer(printed);
    LogCapture log;
    auto finder = discovery();
    finder->findClaude();
    ASSERT_TRUE(SpinUntil([&] { return log.messages().size() == 2; })) << printed;
    EXPECT_THAT(log.messages(), ElementsAre("claude: not in the usual places, asking the shell",
                                            "claude: not installed"))
        << printed;
    EXPECT_EQ(finder->claudePath(), std::nullopt);
    EXPECT_THAT(events_, IsEmpty());
  }
}

TEST_F(AgentDiscoveryTest, ShellAnswerWithoutAnAccountIsKeptButNotAnnounced) {
  std::string elsewhere = make(root_.path() + "/elsewhere/claude");
  answer(elsewhere + "\n");
  auto finder = discovery(/*has_account=*/false);
  finder->findClaude();
  ASSERT_TRUE(SpinUntil([&] { return finder->claudePath().has_value(); }));
  EXPECT_EQ(finder->claudePath(), elsewhere);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: not in the usual places, asking the shell",
                                           "claude: " + elsewhere + " (from the shell)"));
  SpinFor(0.05);
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(AgentDiscoveryTest, ShellThatCannotStartChangesNothing) {
  shell_ = root_.path() + "/no/such/shell";
  auto finder = discovery();
  finder->findClaude();
  SpinFor(0.5);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: not in the usual places, asking the shell"));
  EXPECT_EQ(finder->claudePath(), std::nullopt);
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(AgentDiscoveryTest, DiscoveryRunsOncePerRun) {
  std::string first = make(candidates_[0]);
  auto finder = discovery();
  finder->findClaude();
  g_unlink(first.c_str());
  std::string fifth = make(candidates_[4]);
  finder->findClaude();
  EXPECT_EQ(finder->claudePath(), first);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: " + first));
}

TEST_F(AgentDiscoveryTest, AnswerArrivingAfterTheFinderIsGoneIsDropped) {
  std::string elsewhere = make(root_.path() + "/elsewhere/claude");
  answer(elsewhere + "\n");
  hold();
  {
    auto finder = discovery();
    finder->findClaude();
  }
  release();
  SpinFor(0.5);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: not in the usual places, asking the shell"));
  EXPECT_THAT(events_, IsEmpty());
}

} // namespace
} // namespace orvane
