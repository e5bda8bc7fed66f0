#include "capture/HotkeyTable.h"
#include "capture/Talk.h"

#include "base/BuildInfo.h"
#include "base/Settings.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <set>
#include <vector>

namespace orvane {
namespace {

// Hotkeys whose grabs succeed or fail as the test says, and that fire a
// bound chord on request.
class FakeHotkeys final : public Hotkeys {
public:
  bool bind(const std::string& accelerator, Handler handler) override {
    order.push_back(accelerator);
    if (taken.count(accelerator))
      return false;
    handlers[accelerator] = std::move(handler);
    return true;
  }
  void press(const std::string& accelerator, uint32_t timestamp) {
    handlers.at(accelerator)(timestamp);
  }
  std::set<std::string> taken;
  std::vector<std::string> order;
  std::map<std::string, Handler> handlers;
};

struct Calls {
  std::vector<std::pair<std::string, uint32_t>> made;
  HotkeyActions actions() {
    return {[this](uint32_t t) { made.emplace_back("summon", t); },
            [this](uint32_t t) { made.emplace_back("quote", t); },
            [this](uint32_t t) { made.emplace_back("friendQuote", t); },
            [this](uint32_t t) { made.emplace_back("talk", t); }};
  }
};

TEST(HotkeyDispatchTest, IdsOneToFourReachTheirActionsInTableOrder) {
  Calls calls;
  for (int id = 1; id <= 4; ++id)
    DispatchHotkey(id, 100u + uint32_t(id), calls.actions());
  std::vector<std::pair<std::string, uint32_t>> expected{
      {"summon", 101}, {"quote", 102}, {"friendQuote", 103}, {"talk", 104}};
  EXPECT_EQ(calls.made, expected);
}

TEST(HotkeyDispatchTest, IdsOutsideOneToFourAreIgnored) {
  Calls calls;
  for (int id :
       {0, 5, -1, 6, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    DispatchHotkey(id, 7, calls.actions());
  EXPECT_TRUE(calls.made.empty());
}

// Hotkeys of a desktop that takes an application's shortcuts as one set
// and accepts only some of them.
class SetHotkeys final : public Hotkeys {
public:
  bool bind(const std::string&, Handler) override {
    ++single_binds;
    return false;
  }
  std::vector<bool> bindAll(const std::vector<Request>& requests) override {
    ++sets;
    std::vector<bool> bound;
    for (const Request& request : requests) {
      ids.push_back(request.id);
      EXPECT_FALSE(request.description.empty()) << request.id;
      bound.push_back(request.id != "quote");
      handlers[request.id] = request.handler;
    }
    bound.pop_back(); // answers for one request fewer than it was given
    return bound;
  }
  int single_binds = 0;
  int sets = 0;
  std::vector<std::string> ids;
  std::map<std::string, Handler> handlers;
};

TEST(HotkeyRegistrationTest, ADesktopThatBindsASetGetsTheFourAtOnce) {
  LogCapture log;
  SetHotkeys hotkeys;
  std::vector<std::pair<int, uint32_t>> fired;
  RegisterHotkeys(hotkeys, [&](int id, uint32_t t) { fired.emplace_back(id, t); });
  EXPECT_EQ(hotkeys.sets, 1);
  EXPECT_EQ(hotkeys.single_binds, 0);
  EXPECT_EQ(hotkeys.ids, (std::vector<std::string>{"summon", "quote", "friend-quote", "talk"}));
  // The one it refused and the one it did not answer for are FAILED.
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "hotkeys: ⌥B registered, ⌥C FAILED, ⌥Q registered, ⌥V FAILED"}));
  hotkeys.handlers.at("friend-quote")(0);
  hotkeys.handlers.at("summon")(9);
  EXPECT_EQ(fired, (std::vector<std::pair<int, uint32_t>>{{3, 0}, {1, 9}}));
}

TEST(HotkeyRegistrationTest, FourChordsInOrderAndOneLogLine) {
  LogCapture log;
  FakeHotkeys hotkeys;
  std::vector<std::pair<int, uint32_t>> fired;
  RegisterHotkeys(hotkeys, [&](int id, uint32_t t) { fired.emplace_back(id, t); });
  EXPECT_EQ(hotkeys.order, (std::vector<std::string>{"<Alt>b", "<Alt>c", "<Alt>q", "<Alt>v"}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "hotkeys: ⌥B registered, ⌥C registered, ⌥Q registered, ⌥V registered"}));
  hotkeys.press("<Alt>q", 55);
  hotkeys.press("<Alt>b", 56);
  hotkeys.press("<Alt>v", 57);
  hotkeys.press("<Alt>c", 58);
  EXPECT_EQ(fired, (std::vector<std::pair<int, uint32_t>>{{3, 55}, {1, 56}, {4, 57}, {2, 58}}));
}

TEST(HotkeyRegistrationTest, ATakenChordIsFailedAndTheOthersStillWork) {
  LogCapture log;
  FakeHotkeys hotkeys;
  hotkeys.taken = {"<Alt>c", "<Alt>v"};
  std::vector<int> fired;
  RegisterHotkeys(hotkeys, [&](int id, uint32_t) { fired.push_back(id); });
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "hotkeys: ⌥B registered, ⌥C FAILED, ⌥Q registered, ⌥V FAILED"}));
  hotkeys.press("<Alt>b", 1);
  EXPECT_EQ(fired, std::vector<int>{1});
}

TEST(HotkeyRegistrationTest, EveryChordTakenLogsFailedFourTimes) {
  LogCapture log;
  FakeHotkeys hotkeys;
  hotkeys.taken = {"<Alt>b", "<Alt>c", "<Alt>q", "<Alt>v"};
  RegisterHotkeys(hotkeys, [](int, uint32_t) {});
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"hotkeys: ⌥B FAILED, ⌥C FAILED, ⌥Q FAILED, ⌥V FAILED"}));
}

class TalkTest : public ::testing::Test {
protected:
  void SetUp() override { Settings::standard().remove("ProjectDir"); }
  void TearDown() override { Settings::standard().remove("ProjectDir"); }
  // A terminal that records its arguments in a file.
  std::string recordingTerminal() {
    std::string script = dir.write("terminal", "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"" +
                                                   dir.file("terminal.args") + "\"\n");
    g_chmod(script.c_str(), 0755);
    return script;
  }
  LogCapture log;
  TempDir dir;
  int beeps = 0;
};

TEST_F(TalkTest, AnEmptyProjectDirUsesTheBuiltInFolder) {
  Settings::standard().setString("ProjectDir", "");
  EXPECT_EQ(ProjectDirectory(), std::string(kBundledSiteFolder));
  OpenTalkLauncher(
      ProjectDirectory(), [this] { ++beeps; }, recordingTerminal());
  std::string expected = std::string(kBundledSiteFolder) + "/voice/Talk.command";
  ASSERT_FALSE(log.messages().empty());
  // Not "/voice/Talk.command" under an empty folder.
  EXPECT_TRUE(log.messages().back() ==
                  "talk: nothing runnable at " + expected + ", is the venv built?" ||
              log.messages().back() == "talk: opened " + expected)
      << log.messages().back();
}

TEST_F(TalkTest, ALauncherWithoutTheExecuteBitBeepsAndIsNotOpened) {
  std::string launcher = dir.write("project/voice/Talk.command", "#!/bin/sh\necho hi\n");
  g_chmod(launcher.c_str(), 0644);
  std::string terminal = recordingTerminal();
  OpenTalkLauncher(
      dir.file("project"), [this] { ++beeps; }, terminal);
  EXPECT_EQ(beeps, 1);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"talk: nothing runnable at " + launcher +
                                                      ", is the venv built?"}));
  EXPECT_FALSE(g_file_test(dir.file("terminal.args").c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(TalkTest, AMissingLauncherOrAFolderInItsPlaceBeeps) {
  OpenTalkLauncher(
      dir.file("nowhere"), [this] { ++beeps; }, recordingTerminal());
  g_mkdir_with_parents(dir.file("p/voice/Talk.command").c_str(), 0755);
  OpenTalkLauncher(
      dir.file("p"), [this] { ++beeps; }, recordingTerminal());
  EXPECT_EQ(beeps, 2);
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(TalkTest, AnExecutableLauncherOpensInTheTerminal) {
  std::string launcher = dir.write("project/voice/Talk.command", "#!/bin/sh\n");
  g_chmod(launcher.c_str(), 0755);
  OpenTalkLauncher(
      dir.file("project"), [this] { ++beeps; }, recordingTerminal());
  EXPECT_EQ(beeps, 0);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"talk: opened " + launcher}));
  // The terminal runs in the background; its record appears once it ran.
  std::string args;
  for (int i = 0; i < 500 && args.empty(); ++i) {
    g_usleep(10000);
    args = TempDir::Read(dir.file("terminal.args"));
  }
  EXPECT_EQ(args, "-e\n" + launcher + "\n");
}

TEST_F(TalkTest, ATerminalThatCannotStartIsLogged) {
  std::string launcher = dir.write("project/voice/Talk.command", "#!/bin/sh\n");
  g_chmod(launcher.c_str(), 0755);
  OpenTalkLauncher(
      dir.file("project"), [this] { ++beeps; }, dir.file("no-such-terminal"));
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].rfind("talk: ", 0), 0u);
  EXPECT_EQ(log.messages()[0].find("talk: opened"), std::string::npos);
}

} // namespace
} // namespace orvane
