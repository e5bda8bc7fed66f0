// Agent turns with real child processes: shell scripts standing in for the
// Claude Code executable (agent_fixtures/), real files in a working folder,
// and a real loopback HTTP server for the files a turn fetches.
#include "agent/AgentTurns.h"
#include "agent/LineSplitter.h"

#include "base/Text.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentFixtures.h"
#include "support/MainLoop.h"
#include "support/RawServer.h"
#include "support/TestHttpServer.h"
#include <libsoup/soup.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace orvane {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using json = nlohmann::json;

// A loopback HTTP server that answers each path with a status and body of
// the test's choosing (404 "no such file" otherwise).
class FileServer {
public:
  FileServer()
      : server_([this](const HttpRequest& request, HttpReply& reply) {
          std::lock_guard<std::mutex> lock(mutex_);
          auto found = files_.find(request.path);
          if (found != files_.end()) {
            reply = found->second;
            return;
          }
          reply.status = 404;
          reply.body = "no such file";
          reply.content_type = "text/plain";
        }) {}

  void serve(const std::string& path, int status, const std::string& body) {
    HttpReply reply;
    reply.status = status;
    reply.body = body;
    reply.content_type = "text/plain";
    serve(path, reply);
  }
  void serve(const std::string& path, const HttpReply& reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = reply;
  }
  std::string url(const std::string& path) const { return server_.url(path); }
  std::vector<std::string> requests() const {
    std::vector<std::string> paths;
    for (const HttpRequest& request : server_.requests())
      paths.push_back(request.path);
    return paths;
  }

private:
  std::mutex mutex_;
  std::map<std::string, HttpReply> files_;
  TestHttpServer server_;
};

// An address on loopback where nothing listens: the port was bound and let
// go, so connecting is refused.
std::string RefusingAddress() {
  GSocket* socket =
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr);
  GInetAddress* loopback = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
  GSocketAddress* any = g_inet_socket_address_new(loopback, 0);
  g_socket_bind(socket, any, TRUE, nullptr);
  GSocketAddress* bound = g_socket_get_local_address(socket, nullptr);
  int port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
  g_object_unref(bound);
  g_object_unref(any);
  g_object_unref(loopback);
  g_socket_close(socket, nullptr);
  g_object_unref(socket);
  return "http://127.0.0.1:" + std::to_string(port) + "/paper.txt";
}

// Whether a process is running; one that has died and awaits its parent
// counts as gone.
bool Alive(pid_t pid) {
  std::string stat = TempDir::Read("/proc/" + std::to_string(pid) + "/stat");
  size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos || name_end + 2 >= stat.size())
    return false;
  char state = stat[name_end + 2];
  return state != 'Z' && state != 'X';
}

// A value of /proc/self/status in KiB ("VmRSS", "VmHWM").
size_t MemoryKiB(const std::string& key) {
  std::istringstream status(TempDir::Read("/proc/self/status"));
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(key + ":", 0) == 0)
      return std::stoul(line.substr(key.size() + 1));
  return 0;
}

// Whether the peak resident size tells what the code holds: under
// AddressSanitizer freed memory stays resident in its quarantine.
constexpr bool kPeakMemoryTellsWhatIsHeld =
#if defined(__SANITIZE_ADDRESS__)
    false;
#else
    true;
#endif

// Starts a new peak (VmHWM) at the present resident size.
bool ResetPeakMemory() {
  FILE* file = fopen("/proc/self/clear_refs", "w");
  if (!file)
    return false;
  bool written = fputs("5", file) >= 0;
  return fclose(file) == 0 && written;
}

class AgentTurnsTest : public ::testing::Test {
protected:
  void SetUp() override {
    folder_ = root_.path() + "/library/.spar";
    recreate();
  }

  // A fresh runner with the given limits.
  void recreate(AgentTurnLimits limits = {}) {
    turns_ = std::make_unique<AgentTurns>([this] { return claude_; },
                                          [this] {
                                            g_mkdir_with_parents(folder_.c_str(), 0755);
                                            return folder_;
                                          },
                                          [this](const Event& event) {
                                            if (!keep_ || keep_(event))
                                              events_.push_back(event);
                                          },
                                          root_.path() + "/home", limits);
  }

  void TearDown() override {
    // A test that failed may leave its agent and what it started running:
    // end them (they are ours).
    EndRunningAgents(*turns_);
    for (pid_t pid : started_)
      kill(pid, SIGKILL);
    turns_.reset();
  }

  // The process id an agent's line "<prefix><pid>" announced; it is ended
  // at the end of the test if it still runs.
  pid_t announcedPid(const std::string& turn, const std::string& prefix) {
    for (const auto& line : linesOf(turn))
      if (line.rfind(prefix, 0) == 0) {
        pid_t pid = pid_t(std::stol(line.substr(prefix.size())));
        started_.push_back(pid);
        return pid;
      }
    ADD_FAILURE() << "no line starting with " << prefix;
    return 0;
  }
  bool waitForLineStarting(const std::string& turn, const std::string& prefix) {
    return SpinUntil([&] {
      for (const auto& line : linesOf(turn))
        if (line.rfind(prefix, 0) == 0)
          return true;
      return false;
    });
  }
  int doneCount(const std::string& turn) const {
    int count = 0;
    for (const auto& event : eventsOf(turn))
      count += event["type"] == "claudeDone";
    return count;
  }

  // Installs a stand-in as the agent's executable, at <root>/bin/claude.
  std::string install(const std::string& fixture) {
    claude_ = InstallAgent(root_.path(), fixture);
    return *claude_;
  }

  void run(const json& body) { turns_->runClaude(body); }

  std::vector<Event> eventsOf(const std::string& turn) const {
    std::vector<Event> result;
    for (const auto& event : events_)
      if (event.value("turn", "") == turn)
        result.push_back(event);
    return result;
  }
  std::vector<std::string> linesOf(const std::string& turn) const {
    std::vector<std::string> lines;
    for (const auto& event : eventsOf(turn))
      if (event["type"] == "claudeLine")
        lines.push_back(event["line"]);
    return lines;
  }
  bool done(const std::string& turn) const {
    for (const auto& event : eventsOf(turn))
      if (event["type"] == "claudeDone")
        return true;
    return false;
  }
  bool waitForDone(const std::string& turn, double seconds = 20) {
    return SpinUntil([&] { return done(turn); }, seconds);
  }
  bool waitForLine(const std::string& turn, const std::string& line) {
    return SpinUntil([&] {
      auto lines = linesOf(turn);
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    });
  }
  // The turn's one "claudeDone", checked to be its last event and its only
  // one once the main loop has had a moment more.
  Event doneOf(const std::string& turn) {
    SpinFor(0.05);
    auto events = eventsOf(turn);
    int count = 0;
    for (const auto& event : events)
      count += event["type"] == "claudeDone";
    EXPECT_EQ(count, 1) << "turn " << turn;
    if (events.empty() || events.back()["type"] != "claudeDone") {
      ADD_FAILURE() << "turn " << turn << " does not end with claudeDone";
      return json::object();
    }
    for (const auto& event : events)
      EXPECT_TRUE(event["type"] == "claudeLine" || event["type"] == "claudeDone") << event;
    return events.back();
  }
  void touch(const std::string& name) { TempDir::WriteFile(folder_ + "/" + name, ""); }

  TempDir root_;
  std::string folder_;
  std::optional<std::string> claude_;
  std::vector<Event> events_;
  // When set, decides which events are kept in events_.
  std::function<bool(const Event&)> keep_;
  std::vector<pid_t> started_;
  LogCapture log_;
  std::unique_ptr<AgentTurns> turns_;
};

TEST_F(AgentTurnsTest, LinesArriveWhileTheAgentRunsAndTheLastWithoutBreakAtTheEnd) {
  install("stream_then_wait.sh");
  run({{"turn", "t1"}, {"args", {"A"}}});
  ASSERT_TRUE(waitForLine("t1", "first of A"));
  // The first line reached the page while the agent is still waiting.
  EXPECT_FALSE(done("t1"));
  EXPECT_EQ(turns_->claudeTasks().count("t1"), 1u);
  touch("go-A");
  ASSERT_TRUE(waitForDone("t1"));
  EXPECT_THAT(linesOf("t1"), ElementsAre("first of A", "last of A"));
  Event finished = doneOf("t1");
  EXPECT_EQ(finished, json({{"type", "claudeDone"}, {"turn", "t1"}, {"code", 0}, {"stderr", ""}}));
  EXPECT_EQ(turns_->claudeTasks().count("t1"), 0u);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: turn t1 started (1 args, 0-char prompt)",
                                           "claude: turn t1 exited 0"));
}

TEST_F(AgentTurnsTest, LineEventsCarryTypeTurnAndLine) {
  install("stream_then_wait.sh");
  run({{"turn", "shape"}, {"args", {"S"}}});
  ASSERT_TRUE(waitForLine("shape", "first of S"));
  EXPECT_EQ(events_.front(),
            json({{"type", "claudeLine"}, {"turn", "shape"}, {"line", "first of S"}}));
  touch("go-S");
  ASSERT_TRUE(waitForDone("shape"));
}

TEST_F(AgentTurnsTest, SplitCharacterEmptyLineCarriageReturnAndUndecodableLine) {
  install("split_character.sh");
  run({{"turn", "bytes"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("bytes"));
  EXPECT_THAT(linesOf("bytes"), ElementsAre("café au lait", "second", "third\r", "tail"));
  EXPECT_EQ(doneOf("bytes")["code"], 0);
}

TEST_F(AgentTurnsTest, StandardErrorIsSentWholeWithTheExitStatus) {
  install("stderr_and_code.sh");
  run({{"turn", "e"}, {"args", {"7"}}});
  ASSERT_TRUE(waitForDone("e"));
  EXPECT_THAT(linesOf("e"), ElementsAre("to stdout"));
  Event finished = doneOf("e");
  EXPECT_EQ(finished["code"], 7);
  EXPECT_EQ(finished["stderr"], "problem: é\nsecond line\n");
  EXPECT_THAT(log_.messages(), Contains("claude: turn e exited 7"));
}

TEST_F(AgentTurnsTest, UndecodableStandardErrorBecomesEmpty) {
  install("invalid_stderr.sh");
  run({{"turn", "bad"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("bad"));
  Event finished = doneOf("bad");
  EXPECT_EQ(finished["code"], 2);
  EXPECT_EQ(finished["stderr"], "");
}

TEST_F(AgentTurnsTest, LargeOutputOnBothPipesComesThroughWhole) {
  install("both_pipes.sh");
  run({{"turn", "big"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("big"));
  auto lines = linesOf("big");
  ASSERT_EQ(lines.size(), 3000u);
  for (size_t i = 0; i < lines.size(); ++i) {
    char expected[32];
    snprintf(expected, sizeof expected, "out %04d ", int(i));
    ASSERT_THAT(lines[i], StartsWith(expected));
  }
  Event finished = doneOf("big");
  EXPECT_EQ(finished["code"], 4);
  std::string standard_error = finished["stderr"];
  EXPECT_EQ(standard_error.size(), 3000u * 90);
  EXPECT_THAT(standard_error, StartsWith("err 0000 "));
  EXPECT_THAT(standard_error, HasSubstr("err 2999 "));
}

TEST_F(AgentTurnsTest, StopTerminatesTheTurnWithTheSignalNumber) {
  install("obey_term.sh");
  run({{"turn", "s"}, {"args", json::array()}});
  ASSERT_TRUE(waitForLine("s", "ready"));
  turns_->stopClaude({{"turn", "s"}});
  ASSERT_TRUE(waitForDone("s"));
  EXPECT_THAT(linesOf("s"), ElementsAre("ready"));
  EXPECT_EQ(doneOf("s")["code"], 15);
  EXPECT_THAT(log_.messages(), ElementsAre("claude: turn s started (0 args, 0-char prompt)",
                                           "claude: turn s stopped", "claude: turn s exited 15"));
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, AnAgentThatIgnoresTheStopEndsInItsOwnTimeWithinTheGrace) {
  AgentTurnLimits limits;
  limits.stop_grace_seconds = 60; // no SIGKILL during this test
  recreate(limits);
  install("ignore_term.sh");
  run({{"turn", "stubborn"}, {"args", json::array()}});
  ASSERT_TRUE(waitForLine("stubborn", "ready"));
  turns_->stopClaude({{"turn", "stubborn"}});
  // The signal arrived and was shrugged off; the turn is still running.
  ASSERT_TRUE(waitForLine("stubborn", "term ignored"));
  EXPECT_FALSE(done("stubborn"));
  EXPECT_EQ(turns_->claudeTasks().count("stubborn"), 1u);
  touch("go");
  ASSERT_TRUE(waitForDone("stubborn"));
  EXPECT_THAT(linesOf("stubborn"), ElementsAre("ready", "term ignored", "still here"));
  EXPECT_EQ(doneOf("stubborn")["code"], 3);
  EXPECT_THAT(log_.messages(), Contains("claude: turn stubborn stopped"));
}

TEST_F(AgentTurnsTest, StopOfAnUnknownTurnDoesNothingAndLogsNothing) {
  install("obey_term.sh");
  turns_->stopClaude({{"turn", "never-started"}});
  turns_->stopClaude({{"turn", 12}});
  turns_->stopClaude(json::object());
  turns_->stopClaude(json("text"));
  SpinFor(0.05);
  EXPECT_THAT(log_.messages(), IsEmpty());
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(AgentTurnsTest, AgentKilledByASignalReportsTheSignalNumber) {
  install("kill_self.sh");
  run({{"turn", "k"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("k"));
  EXPECT_THAT(linesOf("k"), ElementsAre("going"));
  EXPECT_EQ(doneOf("k")["code"], 9);
}

TEST_F(AgentTurnsTest, WorkingFolderArgumentsAndEnvironmentAsTheAgentSeesThem) {
  std::string claude = install("report_environment.sh");
  g_setenv("ORVANE_AGENT_TEST_MARKER", "kept as it is", TRUE);
  std::string our_path = g_getenv("PATH");
  std::string prompt = "Read this 😀 and é.";
  run({{"turn", "env"},
       {"args", {"-p", "two words", "", "ünïcode", "--flag=x"}},
       {"prompt_head", prompt}});
  ASSERT_TRUE(waitForDone("env"));
  g_unsetenv("ORVANE_AGENT_TEST_MARKER");
  auto lines = linesOf("env");
  ASSERT_EQ(lines.size(), 11u) << ::testing::PrintToString(lines);
  EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 9),
              ElementsAre("cwd:" + folder_, "argc:5", "arg:-p", "arg:two words",
                          "arg:", "arg:ünïcode", "arg:--flag=x",
                          "path:" + root_.path() + "/bin:" + root_.path() +
                              "/home/.local/bin:/opt/homebrew/bin:/usr/local/bin:" + our_path,
                          "marker:kept as it is"));
  // The agent starts with SIGPIPE at its default action, not ignored as in
  // this process.
  ASSERT_THAT(lines[9], StartsWith("sigign:"));
  unsigned long long ignored = std::stoull(lines[9].substr(7), nullptr, 16);
  EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u) << lines[9];
  EXPECT_EQ(lines[10], "stdin bytes:" + std::to_string(prompt.size()));
  EXPECT_EQ(TempDir::Read(folder_ + "/stdin.bin"), prompt);
  EXPECT_EQ(doneOf("env")["code"], 0);
  // The prompt's length counts UTF-16 units: the emoji counts two.
  EXPECT_EQ(Utf16Length(prompt), 19u);
  EXPECT_THAT(log_.messages(), Contains("claude: turn env started (5 args, 19-char prompt)"));
}

TEST_F(AgentTurnsTest, EmptyArgumentsRunTheAgentWithThePromptOnStandardInput) {
  install("report_environment.sh");
  run({{"turn", "bare"},
       {"args", json::array()},
       {"prompt_head", "head "},
       {"prompt_tail", "tail"}});
  ASSERT_TRUE(waitForDone("bare"));
  auto lines = linesOf("bare");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], "argc:0");
  EXPECT_EQ(TempDir::Read(folder_ + "/stdin.bin"), "head tail");
}

TEST_F(AgentTurnsTest, EmptyPromptClosesStandardInputAtOnce) {
  install("echo_stdin.sh");
  run({{"turn", "quiet"}, {"args", json::array()}});
  // `cat` ends only when its input does.
  ASSERT_TRUE(waitForDone("quiet"));
  EXPECT_THAT(linesOf("quiet"), IsEmpty());
  EXPECT_EQ(doneOf("quiet")["code"], 0);
}

TEST_F(AgentTurnsTest, HugePromptIsWrittenWhileTheMainLoopKeepsTurning) {
  install("read_prompt_later.sh");
  std::string prompt;
  prompt.reserve(20 << 20);
  for (int i = 0; prompt.size() < (20u << 20); ++i)
    prompt += "line " + std::to_string(i) + " of a very long prompt, ü\n";

  int ticks = 0;
  guint timer = g_timeout_add(
      5,
      [](gpointer data) -> gboolean {
        ++*static_cast<int*>(data);
        return G_SOURCE_CONTINUE;
      },
      &ticks);
  // runClaude returns although the agent reads nothing yet and the prompt is
  // far larger than a pipe holds.
  run({{"turn", "huge"}, {"args", json::array()}, {"prompt_head", prompt}});
  ASSERT_TRUE(waitForLine("huge", "waiting"));
  // The timer keeps firing while the prompt waits in the pipe.
  ASSERT_TRUE(SpinUntil([&] { return ticks >= 10; }));
  EXPECT_FALSE(done("huge"));
  touch("go");
  ASSERT_TRUE(waitForDone("huge", 60));
  g_source_remove(timer);
  EXPECT_THAT(linesOf("huge"),
              ElementsAre("waiting", "read " + std::to_string(prompt.size()) + " bytes"));
  EXPECT_TRUE(TempDir::Read(folder_ + "/prompt.bin") == prompt);
  EXPECT_EQ(doneOf("huge")["code"], 0);
}

TEST_F(AgentTurnsTest, AgentThatExitsWithoutReadingAPromptDoesNotHurtUs) {
  install("exit_without_reading.sh");
  std::string prompt(4 << 20, 'p');
  run({{"turn", "gone"}, {"args", json::array()}, {"prompt_head", prompt}});
  ASSERT_TRUE(waitForDone("gone"));
  EXPECT_THAT(linesOf("gone"), ElementsAre("not reading"));
  EXPECT_EQ(doneOf("gone")["code"], 0);
  // The broken pipe was swallowed: we are still here, and a next turn runs.
  install("echo_stdin.sh");
  run({{"turn", "next"}, {"args", json::array()}, {"prompt_head", "still fine\n"}});
  ASSERT_TRUE(waitForDone("next"));
  EXPECT_THAT(linesOf("next"), ElementsAre("still fine"));
}

TEST_F(AgentTurnsTest, MissingAgentEndsTheTurnWithCode127) {
  run({{"turn", "none"}, {"args", {"-p"}}, {"files", {{{"name", "a.txt"}, {"content", "x"}}}}});
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0], json({{"type", "claudeDone"},
                              {"turn", "none"},
                              {"code", 127},
                              {"stderr", "Claude Code is not installed on this Mac"}}));
  EXPECT_FALSE(g_file_test((folder_ + "/a.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(AgentTurnsTest, MalformedRequestsAreIgnoredEntirely) {
  // Not even the missing agent is reported for them.
  for (const json& body :
       {json({{"turn", 5}, {"args", json::array()}}), json({{"args", json::array()}}),
        json({{"turn", "m"}}), json({{"turn", "m"}, {"args", "-p"}}),
        json({{"turn", "m"}, {"args", {"-p", 2}}}),
        json({{"turn", "m"}, {"args", {"-p", nullptr}}}),
        json({{"turn", "m"}, {"args", {json::object()}}}), json::array()}) {
    run(body);
  }
  install("echo_stdin.sh");
  run({{"turn", "m"}, {"args", {"-p", true}}, {"prompt_head", "x\n"}});
  SpinFor(0.2);
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_THAT(log_.messages(), IsEmpty());
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, AgentThatCannotStartEndsTheTurnWithCode1) {
  std::string path = install("echo_stdin.sh");
  chmod(path.c_str(), 0644);
  run({{"turn", "x"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("x"));
  Event finished = doneOf("x");
  EXPECT_EQ(finished["code"], 1);
  EXPECT_THAT(finished["stderr"].get<std::string>(), AllOf(Not(IsEmpty()), HasSubstr(path)));
  EXPECT_TRUE(turns_->claudeTasks().empty());
  EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(AgentTurnsTest, ContentFilesAreWrittenUnderTheirLastComponentOnly) {
  FileServer server;
  install("echo_stdin.sh");
  run({{"turn", "f"},
       {"args", json::array()},
       {"files",
        {{{"name", "../../escape.txt"}, {"content", "escaped?\n"}},
         {{"name", ""}, {"content", "nameless"}},
         {{"name", 5}, {"content", "numbered"}},
         {{"content", "no name"}},
         {{"name", "both.txt"}, {"content", "content wins"}, {"url", server.url("/both")}},
         {{"name", "neither.txt"}},
         "not an object"}},
       {"text_file", "escape.txt"}});
  ASSERT_TRUE(waitForDone("f"));
  EXPECT_EQ(TempDir::Read(folder_ + "/escape.txt"), "escaped?\n");
  EXPECT_FALSE(g_file_test((root_.path() + "/escape.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_FALSE(g_file_test((root_.path() + "/library/escape.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_EQ(TempDir::Read(folder_ + "/both.txt"), "content wins");
  EXPECT_FALSE(g_file_test((folder_ + "/neither.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_THAT(linesOf("f"), ElementsAre("[full text follows]", "escaped?", "[/full text]"));
}

TEST_F(AgentTurnsTest, FetchedFilesAreWrittenWhateverTheStatusAndFeedThePrompt) {
  FileServer server;
  server.serve("/paper.txt", 200, "The paper's full text.");
  server.serve("/notes.txt", 500, "server error page");
  install("echo_stdin.sh");
  run({{"turn", "u"},
       {"args", json::array()},
       {"files",
        {{{"name", "sub/paper.txt"}, {"url", server.url("/paper.txt")}},
         {{"name", "notes.txt"}, {"url", server.url("/notes.txt")}},
         {{"name", "missing.txt"}, {"url", server.url("/missing.txt")}}}},
       {"prompt_head", "Question?\n"},
       {"text_file", "paper.txt"},
       {"prompt_tail", "Answer briefly."}});
  ASSERT_TRUE(waitForDone("u"));
  EXPECT_THAT(server.requests(), ElementsAre("/paper.txt", "/notes.txt", "/missing.txt"));
  EXPECT_EQ(TempDir::Read(folder_ + "/paper.txt"), "The paper's full text.");
  EXPECT_EQ(TempDir::Read(folder_ + "/notes.txt"), "server error page");
  EXPECT_EQ(TempDir::Read(folder_ + "/missing.txt"), "no such file");
  EXPECT_THAT(linesOf("u"),
              ElementsAre("Question?", "[full text follows]", "The paper's full text.",
                          "[/full text]", "Answer briefly."));
  EXPECT_EQ(doneOf("u")["code"], 0);
}

TEST_F(AgentTurnsTest, FailedDownloadEndsTheTurnAndLaterFilesAreNotFetched) {
  FileServer server;
  server.serve("/second.txt", 200, "second");
  install("echo_stdin.sh");
  run({{"turn", "d"},
       {"args", json::array()},
       {"files",
        {{{"name", "first.txt"}, {"content", "written before the failure"}},
         {{"name", "paper.txt"}, {"url", RefusingAddress()}},
         {{"name", "second.txt"}, {"url", server.url("/second.txt")}},
         {{"name", "third.txt"}, {"content", "never written"}}}}});
  ASSERT_TRUE(waitForDone("d"));
  Event finished = doneOf("d");
  EXPECT_EQ(finished["code"], 1);
  std::string text = finished["stderr"];
  EXPECT_THAT(text, StartsWith("Could not fetch the paper text: "));
  EXPECT_GT(text.size(), std::string("Could not fetch the paper text: ").size());
  EXPECT_THAT(linesOf("d"), IsEmpty());
  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_EQ(TempDir::Read(folder_ + "/first.txt"), "written before the failure");
  EXPECT_FALSE(g_file_test((folder_ + "/paper.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_FALSE(g_file_test((folder_ + "/second.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_FALSE(g_file_test((folder_ + "/third.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(AgentTurnsTest, UnparsableUrlCountsAsAFailedDownload) {
  install("echo_stdin.sh");
  int n = 0;
  for (const char* url : {"not a url at all", "ftp://example.org/paper.txt", "http://", ""}) {
    std::string turn = "bad-url-" + std::to_string(n++);
    run({{"turn", turn},
         {"args", json::array()},
         {"files", {{{"name", "paper.txt"}, {"url", url}}}}});
    ASSERT_TRUE(waitForDone(turn)) << url;
    Event finished = doneOf(turn);
    EXPECT_EQ(finished["code"], 1) << url;
    EXPECT_THAT(finished["stderr"].get<std::string>(),
                StartsWith("Could not fetch the paper text: "))
        << url;
  }
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, SecondTurnUnderARunningIdTakesItsPlaceAndKeepsItsEntry) {
  install("stream_then_wait.sh");
  run({{"turn", "same"}, {"args", {"one"}}});
  ASSERT_TRUE(waitForLine("same", "first of one"));
  GSubprocess* first = turns_->claudeTasks().at("same").get();
  run({{"turn", "same"}, {"args", {"two"}}});
  ASSERT_TRUE(waitForLine("same", "first of two"));
  GSubprocess* second = turns_->claudeTasks().at("same").get();
  EXPECT_NE(second, first);

  // The first ends; the entry is the second's and stays where it is.
  touch("go-one");
  ASSERT_TRUE(SpinUntil([&] { return doneCount("same") == 1; }));
  ASSERT_EQ(turns_->claudeTasks().count("same"), 1u);
  EXPECT_EQ(turns_->claudeTasks().at("same").get(), second);

  // So a stop still reaches the second.
  turns_->stopClaude({{"turn", "same"}});
  ASSERT_TRUE(SpinUntil([&] { return doneCount("same") == 2; }, 10));
  SpinFor(0.05);
  std::vector<std::string> kinds;
  for (const auto& event : eventsOf("same"))
    kinds.push_back(event["type"] == "claudeDone" ? "done " + event["code"].dump()
                                                  : event["line"].get<std::string>());
  EXPECT_THAT(kinds,
              ElementsAre("first of one", "first of two", "last of one", "done 0", "done 15"));
  EXPECT_THAT(log_.messages(), Contains("claude: turn same stopped"));
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, TurnsRunSideBySide) {
  install("stream_then_wait.sh");
  run({{"turn", "left"}, {"args", {"L", "5"}}});
  run({{"turn", "right"}, {"args", {"R", "6"}}});
  ASSERT_TRUE(waitForLine("left", "first of L"));
  ASSERT_TRUE(waitForLine("right", "first of R"));
  EXPECT_EQ(turns_->claudeTasks().size(), 2u);
  touch("go-R");
  ASSERT_TRUE(waitForDone("right"));
  EXPECT_FALSE(done("left"));
  touch("go-L");
  ASSERT_TRUE(waitForDone("left"));
  EXPECT_THAT(linesOf("left"), ElementsAre("first of L", "last of L"));
  EXPECT_THAT(linesOf("right"), ElementsAre("first of R", "last of R"));
  EXPECT_EQ(doneOf("left")["code"], 5);
  EXPECT_EQ(doneOf("right")["code"], 6);
}

TEST_F(AgentTurnsTest, LayDownFilesCallsItsCompletionOnce) {
  FileServer server;
  server.serve("/x", 200, "fetched");
  std::vector<std::optional<std::string>> results;
  turns_->layDownFiles(json::array(), [&](const auto& error) { results.push_back(error); });
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0], std::nullopt);

  results.clear();
  turns_->layDownFiles(
      {{{"name", "a"}, {"content", "A"}}, {{"name", "b"}, {"url", server.url("/x")}}},
      [&](const auto& error) { results.push_back(error); });
  ASSERT_TRUE(SpinUntil([&] { return !results.empty(); }));
  SpinFor(0.05);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0], std::nullopt);
  EXPECT_EQ(TempDir::Read(folder_ + "/a"), "A");
  EXPECT_EQ(TempDir::Read(folder_ + "/b"), "fetched");

  results.clear();
  turns_->layDownFiles({{{"name", "c"}, {"url", RefusingAddress()}}},
                       [&](const auto& error) { results.push_back(error); });
  ASSERT_TRUE(SpinUntil([&] { return !results.empty(); }));
  SpinFor(0.05);
  ASSERT_EQ(results.size(), 1u);
  ASSERT_TRUE(results[0].has_value());
  EXPECT_FALSE(results[0]->empty());
}

TEST_F(AgentTurnsTest, WorkingFolderIsCreatedOnDemand) {
  EXPECT_FALSE(g_file_test(folder_.c_str(), G_FILE_TEST_IS_DIR));
  EXPECT_EQ(turns_->sparFolder(), folder_);
  EXPECT_TRUE(g_file_test(folder_.c_str(), G_FILE_TEST_IS_DIR));
}

TEST_F(AgentTurnsTest, AnOutputLineLongerThan16MiBArrivesInPiecesOfAtMost16MiB) {
  install("long_line.sh");
  // The stand-in writes "é€😀abc" over and over without a line feed. The
  // pieces are checked as they come and not kept, so that the memory
  // measured is the runner's.
  const std::string pattern = "é€😀abc";
  const size_t written = 41943036;
  size_t received = 0;
  size_t pieces = 0;
  size_t largest = 0;
  bool intact = true;
  bool valid = true;
  keep_ = [&](const Event& event) {
    if (event["type"] != "claudeLine")
      return true;
    const std::string& piece = event["line"].get_ref<const std::string&>();
    ++pieces;
    largest = std::max(largest, piece.size());
    valid = valid && IsValidUtf8(piece);
    for (size_t i = 0; i < piece.size() && intact; ++i)
      intact = piece[i] == pattern[(received + i) % pattern.size()];
    received += piece.size();
    return false;
  };
  size_t resident_before = MemoryKiB("VmRSS");
  ASSERT_TRUE(ResetPeakMemory());
  run({{"turn", "long"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("long", 60));
  size_t peak_growth_mib =
      (MemoryKiB("VmHWM") - std::min(resident_before, MemoryKiB("VmHWM"))) >> 10;
  EXPECT_EQ(doneOf("long")["code"], 0);
  // Nothing lost, nothing reordered, every cut between two characters.
  EXPECT_EQ(received, written);
  EXPECT_TRUE(intact);
  EXPECT_TRUE(valid);
  EXPECT_EQ(pieces, 3u);
  EXPECT_LE(largest, size_t(16) << 20);
  // What is held is a piece and the event carrying it (about 32 MiB), not
  // the whole line and copies of it.
  if (kPeakMemoryTellsWhatIsHeld) {
    EXPECT_LT(peak_growth_mib, 48u);
  }
}

TEST_F(AgentTurnsTest, StandardErrorKeepsOnlyItsLast1MiB) {
  install("flood_stderr.sh");
  size_t resident_before = MemoryKiB("VmRSS");
  ASSERT_TRUE(ResetPeakMemory());
  run({{"turn", "flood"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("flood", 60));
  size_t peak_growth_mib =
      (MemoryKiB("VmHWM") - std::min(resident_before, MemoryKiB("VmHWM"))) >> 10;
  EXPECT_THAT(linesOf("flood"), ElementsAre("flooded"));
  Event finished = doneOf("flood");
  EXPECT_EQ(finished["code"], 6);
  std::string kept = finished["stderr"];

  // The end of the stream, rebuilt: the last lines of the flood, then
  // "the end now"; its last 1 MiB, less the bytes of a character cut in two.
  std::string stream_end;
  while (stream_end.size() < (size_t(1) << 20) + 16)
    stream_end += "é€😀abc\n";
  stream_end += "the end now\n";
  std::string expected = stream_end.substr(stream_end.size() - (size_t(1) << 20));
  size_t cut = 0;
  while (cut < expected.size() && (static_cast<unsigned char>(expected[cut]) & 0xC0) == 0x80)
    ++cut;
  expected.erase(0, cut);
  EXPECT_EQ(cut, 2u); // the last 1 MiB starts inside a character
  EXPECT_EQ(kept.size(), expected.size());
  EXPECT_TRUE(kept == expected);
  EXPECT_TRUE(IsValidUtf8(kept));
  if (kPeakMemoryTellsWhatIsHeld) {
    EXPECT_LT(peak_growth_mib, 16u);
  }
}

TEST_F(AgentTurnsTest, TurnFileLargerThanItsCapFailsTheTurn) {
  AgentTurnLimits limits;
  limits.turn_file = 1000;
  recreate(limits);
  FileServer server;
  server.serve("/fits.txt", 200, std::string(1000, 'f'));
  server.serve("/declared.txt", 200, std::string(1001, 'd'));
  HttpReply chunked;
  chunked.body = std::string(5000, 'c');
  chunked.chunked = true; // no length declared: counted as it comes
  server.serve("/chunked.txt", chunked);
  install("echo_stdin.sh");

  run({{"turn", "fits"},
       {"args", json::array()},
       {"files", {{{"name", "fits.txt"}, {"url", server.url("/fits.txt")}}}},
       {"prompt_head", "ran\n"}});
  ASSERT_TRUE(waitForDone("fits"));
  EXPECT_EQ(doneOf("fits")["code"], 0);
  EXPECT_EQ(TempDir::Read(folder_ + "/fits.txt"), std::string(1000, 'f'));

  for (const char* path : {"/declared.txt", "/chunked.txt"}) {
    std::string turn = std::string("over") + path;
    TempDir::WriteFile(folder_ + "/paper.txt", "the old paper");
    run({{"turn", turn},
         {"args", json::array()},
         {"files", {{{"name", "paper.txt"}, {"url", server.url(path)}}}},
         {"prompt_head", "ran\n"}});
    ASSERT_TRUE(waitForDone(turn)) << path;
    Event finished = doneOf(turn);
    EXPECT_EQ(finished["code"], 1) << path;
    EXPECT_EQ(finished["stderr"],
              "Could not fetch the paper text: the file is larger than 1000 bytes")
        << path;
    EXPECT_THAT(linesOf(turn), IsEmpty()) << path;
    // The file already there is untouched, and nothing is left half written.
    EXPECT_EQ(TempDir::Read(folder_ + "/paper.txt"), "the old paper") << path;
    GDir* dir = g_dir_open(folder_.c_str(), 0, nullptr);
    std::vector<std::string> names;
    while (const char* name = g_dir_read_name(dir))
      names.push_back(name);
    g_dir_close(dir);
    EXPECT_THAT(names, ::testing::UnorderedElementsAre("fits.txt", "paper.txt")) << path;
  }
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, TurnFileFetchThatFallsSilentFailsAfterTheIdleTime) {
  AgentTurnLimits limits;
  limits.fetch_idle_seconds = 1;
  recreate(limits);
  FileServer server;
  HttpReply stalls;
  stalls.body = std::string(100000, 's');
  stalls.stall_after = 1000;
  server.serve("/stalls.txt", stalls);
  SilentServer silent;
  install("echo_stdin.sh");
  for (const auto& [turn, url] : std::vector<std::pair<std::string, std::string>>{
           {"mid-body", server.url("/stalls.txt")}, {"no-answer", silent.address() + "/p.txt"}}) {
    run({{"turn", turn},
         {"args", json::array()},
         {"files", {{{"name", "paper.txt"}, {"url", url}}}},
         {"prompt_head", "ran\n"}});
    ASSERT_TRUE(waitForDone(turn, 15)) << turn;
    Event finished = doneOf(turn);
    EXPECT_EQ(finished["code"], 1) << turn;
    EXPECT_EQ(finished["stderr"], "Could not fetch the paper text: nothing received for 1 s")
        << turn;
    EXPECT_THAT(linesOf(turn), IsEmpty()) << turn;
    EXPECT_FALSE(g_file_test((folder_ + "/paper.txt").c_str(), G_FILE_TEST_EXISTS)) << turn;
  }
}

TEST_F(AgentTurnsTest, TurnFileThatArrivesSlowlyButSteadilyIsFetchedWhole) {
  AgentTurnLimits limits;
  limits.fetch_idle_seconds = 1;
  recreate(limits);
  // Two seconds in all, but never a second without a byte.
  std::vector<std::string> pieces;
  std::string whole;
  for (int i = 0; i < 8; ++i) {
    pieces.push_back("piece " + std::to_string(i) + "\n");
    whole += pieces.back();
  }
  // A server that sends the body slowly but steadily: a pause after each
  // piece, then it hangs up.
  RawServer server([&](RawServer& raw, int client, const std::string&) {
    std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                       std::to_string(whole.size()) + "\r\nConnection: close\r\n\r\n";
    if (!RawServer::Send(client, head))
      return;
    for (const auto& piece : pieces) {
      if (!RawServer::Send(client, piece))
        return;
      raw.waitFor([] { return false; }, 0.25);
    }
  });
  install("echo_stdin.sh");
  run({{"turn", "slow"},
       {"args", json::array()},
       {"files", {{{"name", "paper.txt"}, {"url", server.url("/paper.txt")}}}},
       {"text_file", "paper.txt"}});
  ASSERT_TRUE(waitForDone("slow"));
  EXPECT_EQ(doneOf("slow")["code"], 0);
  EXPECT_EQ(TempDir::Read(folder_ + "/paper.txt"), whole);
  EXPECT_THAT(linesOf("slow"), Contains("piece 7"));
}

TEST_F(AgentTurnsTest, StopKillsTheTurnsProcessGroupWhenItIgnoresTheTerminateRequest) {
  AgentTurnLimits limits;
  limits.stop_grace_seconds = 0.5;
  recreate(limits);
  install("group_ignores_term.sh");
  run({{"turn", "g"}, {"args", json::array()}});
  ASSERT_TRUE(waitForLine("g", "ready"));
  ASSERT_TRUE(waitForLineStarting("g", "child "));
  pid_t child = announcedPid("g", "child ");
  pid_t agent = pid_t(std::stol(g_subprocess_get_identifier(turns_->claudeTasks().at("g").get())));
  turns_->stopClaude({{"turn", "g"}});
  ASSERT_TRUE(waitForDone("g", 10));
  EXPECT_EQ(doneOf("g")["code"], 9);
  EXPECT_TRUE(SpinUntil([&] { return !Alive(child) && !Alive(agent); }, 10));
  EXPECT_THAT(linesOf("g"), Contains("ready"));
  EXPECT_THAT(log_.messages(), Contains("claude: turn g stopped"));
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, StopReachesWhatTheAgentStarted) {
  AgentTurnLimits limits;
  limits.stop_grace_seconds = 0.5;
  limits.drain_seconds = 60; // the turn can end only by its group's end
  recreate(limits);
  install("child_ignores_term.sh");
  run({{"turn", "c"}, {"args", json::array()}});
  ASSERT_TRUE(waitForLineStarting("c", "child "));
  pid_t child = announcedPid("c", "child ");
  turns_->stopClaude({{"turn", "c"}});
  ASSERT_TRUE(waitForDone("c", 10));
  // The agent itself died of the terminate request.
  EXPECT_EQ(doneOf("c")["code"], 15);
  EXPECT_FALSE(Alive(child));
  EXPECT_TRUE(turns_->claudeTasks().empty());
}

TEST_F(AgentTurnsTest, TurnEndsWhenTheAgentExitsThoughAProcessItLeftHoldsItsOutput) {
  AgentTurnLimits limits;
  limits.drain_seconds = 1;
  limits.stop_grace_seconds = 0.5;
  recreate(limits);
  install("leave_background.sh");
  pid_t grandchild = 0;
  bool alive_at_done = false;
  keep_ = [&](const Event& event) {
    if (event["type"] == "claudeLine" &&
        event["line"].get<std::string>().rfind("grandchild ", 0) == 0) {
      grandchild = pid_t(std::stol(event["line"].get<std::string>().substr(11)));
      started_.push_back(grandchild);
    }
    if (event["type"] == "claudeDone")
      alive_at_done = grandchild > 0 && Alive(grandchild);
    return true;
  };
  run({{"turn", "bg"}, {"args", json::array()}});
  ASSERT_TRUE(waitForDone("bg", 10));
  EXPECT_TRUE(alive_at_done);
  EXPECT_THAT(linesOf("bg"), ElementsAre("grandchild " + std::to_string(grandchild), "exiting"));
  EXPECT_EQ(doneOf("bg")["code"], 5);
  EXPECT_TRUE(turns_->claudeTasks().empty());
  // What the agent left behind ends with the turn's process group.
  EXPECT_TRUE(SpinUntil([&] { return !Alive(grandchild); }, 10));
}

TEST_F(AgentTurnsTest, AgentKilledFromOutsideMidTurnEndsOnceWithCode9AndLosesNoLine) {
  install("count_then_wait.sh");
  run({{"turn", "victim"}, {"args", json::array()}});
  ASSERT_TRUE(waitForLine("victim", "ready"));
  pid_t agent =
      pid_t(std::stol(g_subprocess_get_identifier(turns_->claudeTasks().at("victim").get())));
  ASSERT_EQ(kill(agent, SIGKILL), 0);
  ASSERT_TRUE(waitForDone("victim", 10));
  std::vector<std::string> expected;
  for (int i = 1; i <= 500; ++i)
    expected.push_back("line " + std::to_string(i));
  expected.push_back("ready");
  EXPECT_EQ(linesOf("victim"), expected);
  Event finished = doneOf("victim");
  EXPECT_EQ(finished["code"], 9);
  EXPECT_EQ(finished["stderr"], "");
  EXPECT_TRUE(turns_->claudeTasks().empty());
  EXPECT_THAT(log_.messages(), Contains("claude: turn victim exited 9"));

  // The program carries on: the next turn runs as usual.
  install("echo_stdin.sh");
  run({{"turn", "after"}, {"args", json::array()}, {"prompt_head", "still fine\n"}});
  ASSERT_TRUE(waitForDone("after"));
  EXPECT_THAT(linesOf("after"), ElementsAre("still fine"));
  EXPECT_EQ(doneOf("after")["code"], 0);
}

} // namespace
} // namespace orvane
