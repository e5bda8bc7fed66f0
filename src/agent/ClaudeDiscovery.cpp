#include "agent/ClaudeDiscovery.h"

#include "agent/LineSplitter.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"

#include <gio/gio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace orvane {

struct ClaudeDiscovery::State {
  std::function<bool()> store_has_account;
  std::function<std::string()> spar_folder;
  std::function<void(const Event&)> send_event;
  std::string home;
  std::string shell;
  std::optional<std::vector<std::string>> candidates;
  std::optional<std::string> claude_path;
  bool started = false;
};

namespace {

// Trims white space and line breaks (Unicode's, not only ASCII's) from both
// ends of valid UTF-8 text.
std::string TrimWhitespace(const std::string& text) {
  const char* begin = text.data();
  const char* end = text.data() + text.size();
  while (begin < end && g_unichar_isspace(g_utf8_get_char(begin)))
    begin = g_utf8_next_char(begin);
  while (end > begin) {
    const char* last = g_utf8_find_prev_char(begin, end);
    if (!last || !g_unichar_isspace(g_utf8_get_char(last)))
      break;
    end = last;
  }
  return std::string(begin, end);
}

// Runs the login shell's look-up and returns what it printed, decoded and
// trimmed ("" when the output is not UTF-8). Nothing when the shell cannot
// be started. Blocks until the shell exits: never call it on the main loop.
std::optional<std::string> AskLoginShell(const std::string& shell) {
  const gchar* argv[] = {shell.c_str(), "-lc", "command -v claude", nullptr};
  GErrorPtr error;
  // Standard error goes to a pipe of its own that is never read; standard
  // input stays ours.
  auto launcher = GObjectPtr<GSubprocessLauncher>::adopt(g_subprocess_launcher_new(
      GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE |
                       G_SUBPROCESS_FLAGS_STDIN_INHERIT)));
  // Background work: the shell, and all its profile runs (version managers,
  // environment set-ups), take a small share of the processor while the
  // launch it starts beside still needs it. Run in the child before exec.
  g_subprocess_launcher_set_child_setup(
      launcher.get(),
      [](gpointer) {
        if (nice(kShellNiceness) == -1) {
          // Left at our own priority: the look-up still runs.
        }
      },
      nullptr, nullptr);
  auto process = GObjectPtr<GSubprocess>::adopt(
      g_subprocess_launcher_spawnv(launcher.get(), argv, error.out()));
  if (!process)
    return std::nullopt;
  GInputStream* out = g_subprocess_get_stdout_pipe(process.get());
  std::string output;
  char buffer[4096];
  for (;;) {
    gssize got = g_input_stream_read(out, buffer, sizeof buffer, nullptr, nullptr);
    if (got <= 0)
      break;
    output.append(buffer, size_t(got));
  }
  // There is no time-out: a profile that hangs keeps only this thread
  // waiting. The exit status says nothing we use.
  g_subprocess_wait(process.get(), nullptr, nullptr);
  if (!IsValidUtf8(output))
    return std::string();
  return TrimWhitespace(output);
}

} // namespace

std::vector<std::string> StandardClaudeCandidates(const std::string& home) {
  return {
      JoinPath(home, ".local/bin/claude"),
      JoinPath(home, ".claude/local/claude"),
      "/opt/homebrew/bin/claude",
      "/usr/local/bin/claude",
      JoinPath(home, ".npm-global/bin/claude"),
      JoinPath(home, ".nvm/current/bin/claude"),
  };
}

bool IsExecutableFile(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos)
    return false;
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    return false;
  return access(path.c_str(), X_OK) == 0;
}

std::string LoginShell() {
  const char* shell = g_getenv("SHELL");
  return shell && *shell ? shell : "/bin/sh";
}

ClaudeDiscovery::ClaudeDiscovery(std::function<bool()> store_has_account,
                                 std::function<std::string()> spar_folder,
                                 std::function<void(const Event&)> send_event, std::string home,
                                 std::string shell,
                                 std::optional<std::vector<std::string>> candidates)
    : state_(std::make_shared<State>()) {
  state_->store_has_account = std::move(store_has_account);
  state_->spar_folder = std::move(spar_folder);
  state_->send_event = std::move(send_event);
  state_->home = home.empty() ? HomeFolder() : std::move(home);
  state_->shell = shell.empty() ? LoginShell() : std::move(shell);
  state_->candidates = std::move(candidates);
}

ClaudeDiscovery::~ClaudeDiscovery() = default;

const std::optional<std::string>& ClaudeDiscovery::claudePath() const {
  return state_->claude_path;
}

void ClaudeDiscovery::findClaude() {
  if (state_->started)
    return;
  state_->started = true;

  std::vector<std::string> candidates =
      state_->candidates ? *state_->candidates : StandardClaudeCandidates(state_->home);
  for (const auto& candidate : candidates) {
    if (IsExecutableFile(candidate)) {
      state_->claude_path = candidate;
      break;
    }
  }
  SparLog("claude: %@", state_->claude_path ? *state_->claude_path
                                            : std::string("not in the usual places, "
                                                          "asking the shell"));
  if (state_->claude_path)
    return;

  // The shell's answer comes back to the main context of this thread.
  struct Answer {
    std::weak_ptr<State> state;
    std::string text;
  };
  GMainContextPtr context(g_main_context_ref_thread_default());
  std::weak_ptr<State> weak = state_;
  std::string shell = state_->shell;
  std::thread([weak, shell, context = std::move(context)]() mutable {
    std::optional<std::string> answer = AskLoginShell(shell);
    if (!answer)
      return; // the shell could not be started: silently nothing
    // An idle source attached to the context runs on the thread that
    // iterates it, never here. (g_main_context_invoke would run the callback
    // on this thread whenever the main loop is between iterations.)
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
          auto* answer = static_cast<Answer*>(data);
          if (auto state = answer->state.lock())
            shellAnswered(state, answer->text);
          return G_SOURCE_REMOVE;
        },
        new Answer{weak, std::move(*answer)},
        [](gpointer data) { delete static_cast<Answer*>(data); });
    g_source_set_name(source, "[orvane] claude discovery answer");
    g_source_attach(source, context.get());
    g_source_unref(source);
  }).detach();
}

void ClaudeDiscovery::shellAnswered(const std::shared_ptr<State>& state,
                                    const std::string& answer) {
  if (state->claude_path)
    return;
  // An alias or function, which `command -v` prints as a definition, or
  // several lines, fail the executable test here.
  if (answer.empty() || !IsExecutableFile(answer)) {
    SparLog("claude: not installed");
    return;
  }
  state->claude_path = answer;
  SparLog("claude: %@ (from the shell)", answer);
  if (state->store_has_account && state->store_has_account()) {
    std::string spar_root = state->spar_folder ? state->spar_folder() : std::string();
    Event event = {{"type", "claudeStatus"}, {"path", answer}, {"sparRoot", spar_root}};
    if (state->send_event)
      state->send_event(event);
  }
}

} // namespace orvane
