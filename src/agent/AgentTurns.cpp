#include "agent/AgentTurns.h"

#include "agent/AgentPrompt.h"
#include "agent/LineSplitter.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <gio/gunixoutputstream.h>
#include <glib-unix.h>
#include <libsoup/soup.h>
#include <signal.h>

#include <utility>
#include <vector>

namespace orvane {

namespace {

// Output is read just below GTK's redraw priority: input events and redraws
// go first, so an agent that floods its output cannot freeze the windows,
// while our own idle work still waits for the agent.
constexpr int kOutputPriority = G_PRIORITY_HIGH_IDLE + 30;
constexpr size_t kReadSize = 64 * 1024;

using GStrvPtr = GHandle<gchar*, g_strfreev>;
using GUriPtr = GHandle<GUri, g_uri_unref>;

// Wraps a C++ callable as a GAsyncReadyCallback; the callable is deleted
// after its one call.
template <typename F> std::pair<GAsyncReadyCallback, gpointer> Async(F callable) {
  auto* held = new F(std::move(callable));
  return {[](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<F> call(static_cast<F*>(data));
            (*call)(source, result);
          },
          held};
}

void IgnoreSigpipe() {
  struct sigaction current {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
    signal(SIGPIPE, SIG_IGN);
}

Event DoneEvent(const std::string& turn, int code, const std::string& standard_error) {
  Event event = Event::object();
  event["type"] = "claudeDone";
  event["turn"] = turn;
  event["code"] = code;
  event["stderr"] = standard_error;
  return event;
}

// Writes a turn file atomically; failures are ignored, as the turn runs on
// without the file.
void WriteTurnFile(const std::string& folder, const std::string& name, const char* data,
                   size_t length) {
  if (!IsFileName(name))
    return;
  std::string path = folder + "/" + name;
  g_file_set_contents(path.c_str(), data, gssize(length), nullptr);
}

} // namespace

struct AgentTurns::Core {
  std::function<std::optional<std::string>()> claude_path;
  std::function<std::string()> spar_folder;
  std::function<void(const Event&)> send_event;
  std::function<void()> open_batch;
  std::function<void()> close_batch;
  std::string home;
  GObjectPtr<SoupSession> session;
  GObjectPtr<GCancellable> cancellable;
  std::map<std::string, GObjectPtr<GSubprocess>> claude_tasks;

  void send(const Event& event) {
    if (send_event)
      send_event(event);
  }
  std::string folder() { return spar_folder ? spar_folder() : std::string(); }
};

struct AgentTurns::Turn {
  std::weak_ptr<Core> core;
  std::string id;
  GObjectPtr<GSubprocess> process;
  GObjectPtr<GCancellable> cancellable;
  std::string prompt;
  LineSplitter splitter;
  std::vector<char> output_buffer = std::vector<char>(kReadSize);
  std::vector<char> error_buffer = std::vector<char>(kReadSize);
  std::string standard_error;
  bool output_ended = false;
  bool error_ended = false;
  bool exited = false;
  bool reported = false;
  int code = 0;

  // One "claudeLine" event serves every line of the turn: only its "line"
  // changes, so a line costs no allocation once the text's buffer has grown
  // to the longest line. Receivers copy what they keep.
  Event line_event;
  std::string* line_text = nullptr;

  void sendLine(Core& core, std::string_view line) {
    if (!line_text) {
      line_event = Event::object();
      line_event["type"] = "claudeLine";
      line_event["turn"] = id;
      line_event["line"] = "";
      line_text = &line_event["line"].get_ref<std::string&>();
    }
    line_text->assign(line);
    core.send(line_event);
  }
};

AgentTurns::AgentTurns(std::function<std::optional<std::string>()> claude_path,
                       std::function<std::string()> spar_folder,
                       std::function<void(const Event&)> send_event, std::string home)
    : core_(std::make_shared<Core>()) {
  IgnoreSigpipe();
  core_->claude_path = std::move(claude_path);
  core_->spar_folder = std::move(spar_folder);
  core_->send_event = std::move(send_event);
  core_->home = home.empty() ? HomeFolder() : std::move(home);
  core_->session = GObjectPtr<SoupSession>::adopt(soup_session_new());
  core_->cancellable = GObjectPtr<GCancellable>::adopt(g_cancellable_new());
}

void AgentTurns::setEventBatching(std::function<void()> open, std::function<void()> close) {
  core_->open_batch = std::move(open);
  core_->close_batch = std::move(close);
}

AgentTurns::~AgentTurns() {
  g_cancellable_cancel(core_->cancellable.get());
}

std::string AgentTurns::sparFolder() const {
  return core_->folder();
}

const std::map<std::string, GObjectPtr<GSubprocess>>& AgentTurns::claudeTasks() const {
  return core_->claude_tasks;
}

void AgentTurns::runClaude(const nlohmann::json& body) {
  std::optional<std::string> turn = StringMember(body, "turn");
  std::optional<std::vector<std::string>> args = TurnArguments(body);
  // A malformed request has no lifecycle: no event, no log line. An "args"
  // holding anything but strings is no array of strings, so it counts as
  // absent like any value of the wrong type.
  if (!turn || !args)
    return;

  std::optional<std::string> claude_path = core_->claude_path ? core_->claude_path() : std::nullopt;
  if (!claude_path || claude_path->empty()) {
    core_->send(DoneEvent(*turn, 127, "Claude Code is not installed on this Mac"));
    return;
  }

  nlohmann::json files = nlohmann::json::array();
  if (auto found = body.find("files"); found != body.end() && found->is_array())
    files = *found;
  auto request = std::make_shared<const nlohmann::json>(body);
  std::weak_ptr<Core> weak = core_;
  layDownFiles(files, [weak, turn = *turn, args = std::move(*args), path = *claude_path,
                       request](const std::optional<std::string>& error) {
    auto core = weak.lock();
    if (!core)
      return;
    if (error) {
      core->send(DoneEvent(turn, 1, "Could not fetch the paper text: " + *error));
      return;
    }
    startTurn(core, turn, args, path, *request);
  });
}

void AgentTurns::stopClaude(const nlohmann::json& body) {
  std::optional<std::string> turn = StringMember(body, "turn");
  if (!turn)
    return;
  auto found = core_->claude_tasks.find(*turn);
  if (found == core_->claude_tasks.end())
    return;
  g_subprocess_send_signal(found->second.get(), SIGTERM);
  SparLog("claude: turn %@ stopped", *turn);
}

void AgentTurns::layDownFiles(const nlohmann::json& files, FilesCompletion completion) {
  auto list =
      std::make_shared<const nlohmann::json>(files.is_array() ? files : nlohmann::json::array());
  layDownFrom(core_, std::move(list), 0, std::move(completion));
}

void AgentTurns::layDownFrom(const std::shared_ptr<Core>& core,
                             std::shared_ptr<const nlohmann::json> files, size_t index,
                             FilesCompletion completion) {
  // Entries written straight away are handled in this loop; a download
  // continues the walk from its completion.
  for (; index < files->size(); ++index) {
    const nlohmann::json& entry = (*files)[index];
    if (!entry.is_object())
      continue;
    std::string name = TurnFileName(entry.contains("name") ? entry["name"] : nlohmann::json());
    if (name.empty())
      continue;
    if (auto content = StringMember(entry, "content")) {
      WriteTurnFile(core->folder(), name, content->data(), content->size());
      continue;
    }
    std::optional<std::string> url = StringMember(entry, "url");
    if (!url)
      continue;

    GErrorPtr error;
    GUriPtr uri(g_uri_parse(url->c_str(), GUriFlags(SOUP_HTTP_URI_FLAGS), error.out()));
    if (!uri) {
      completion(error.message().empty() ? "download failed" : error.message());
      return;
    }
    const char* scheme = g_uri_get_scheme(uri.get());
    const char* host = g_uri_get_host(uri.get());
    if (!scheme ||
        (g_ascii_strcasecmp(scheme, "http") != 0 && g_ascii_strcasecmp(scheme, "https") != 0) ||
        !host || !*host) {
      completion("unsupported URL");
      return;
    }
    auto message = GObjectPtr<SoupMessage>::adopt(soup_message_new_from_uri("GET", uri.get()));
    std::weak_ptr<Core> weak = core;
    auto [callback, data] = Async([weak, files, index, name, completion = std::move(completion)](
                                      GObject* source, GAsyncResult* result) mutable {
      GErrorPtr error;
      GBytesPtr body(soup_session_send_and_read_finish(SOUP_SESSION(source), result, error.out()));
      auto core = weak.lock();
      if (!core)
        return;
      // The HTTP status is not looked at: an error page's body becomes
      // the file.
      if (!body) {
        completion(error.message().empty() ? "download failed" : error.message());
        return;
      }
      gsize length = 0;
      const char* bytes = static_cast<const char*>(g_bytes_get_data(body.get(), &length));
      WriteTurnFile(core->folder(), name, bytes ? bytes : "", length);
      layDownFrom(core, files, index + 1, std::move(completion));
    });
    soup_session_send_and_read_async(core->session.get(), message.get(), G_PRIORITY_DEFAULT,
                                     core->cancellable.get(), callback, data);
    return;
  }
  completion(std::nullopt);
}

void AgentTurns::startTurn(const std::shared_ptr<Core>& core, const std::string& turn_id,
                           const std::vector<std::string>& args, const std::string& claude_path,
                           const nlohmann::json& body) {
  std::string folder = core->folder();
  auto turn = std::make_shared<Turn>();
  turn->core = core;
  turn->id = turn_id;
  turn->cancellable = core->cancellable;
  turn->prompt = BuildAgentPrompt(body, folder);

  const char* our_path = g_getenv("PATH");
  GStrvPtr environment(g_environ_setenv(
      g_get_environ(), "PATH",
      AgentSearchPath(claude_path, core->home,
                      our_path ? std::optional<std::string>(our_path) : std::nullopt)
          .c_str(),
      TRUE));
  std::vector<const gchar*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(claude_path.c_str());
  for (const auto& arg : args)
    argv.push_back(arg.c_str());
  argv.push_back(nullptr);

  auto launcher = GObjectPtr<GSubprocessLauncher>::adopt(g_subprocess_launcher_new(
      GSubprocessFlags(G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                       G_SUBPROCESS_FLAGS_STDERR_PIPE)));
  g_subprocess_launcher_set_cwd(launcher.get(), folder.c_str());
  g_subprocess_launcher_set_environ(launcher.get(), environment.get());
  GErrorPtr error;
  turn->process = GObjectPtr<GSubprocess>::adopt(
      g_subprocess_launcher_spawnv(launcher.get(), argv.data(), error.out()));
  if (!turn->process) {
    core->send(DoneEvent(turn_id, 1,
                         error.message().empty() ? "could not start claude" : error.message()));
    return;
  }

  // A second turn under the id of a running one takes its place here.
  core->claude_tasks[turn_id] = turn->process;
  SparLog("claude: turn %@ started (%lu args, %lu-char prompt)", turn_id,
          static_cast<unsigned long>(args.size()),
          static_cast<unsigned long>(Utf16Length(turn->prompt)));

  readOutput(turn, false);
  readOutput(turn, true);
  auto [callback, data] = Async([turn](GObject* source, GAsyncResult* result) {
    GErrorPtr error;
    bool waited = g_subprocess_wait_finish(G_SUBPROCESS(source), result, error.out());
    if (!waited || turn->core.expired())
      return; // cancelled: nobody is left to tell
    GSubprocess* process = G_SUBPROCESS(source);
    turn->code = g_subprocess_get_if_signaled(process) ? g_subprocess_get_term_sig(process)
                                                       : g_subprocess_get_exit_status(process);
    turn->exited = true;
    finishIfDone(turn);
  });
  g_subprocess_wait_async(turn->process.get(), turn->cancellable.get(), callback, data);
  writePrompt(turn);
}

void AgentTurns::readOutput(const std::shared_ptr<Turn>& turn, bool standard_error) {
  GInputStream* stream = standard_error ? g_subprocess_get_stderr_pipe(turn->process.get())
                                        : g_subprocess_get_stdout_pipe(turn->process.get());
  std::vector<char>& buffer = standard_error ? turn->error_buffer : turn->output_buffer;
  auto [callback, data] = Async([turn, standard_error](GObject* source, GAsyncResult* result) {
    GErrorPtr error;
    gssize got = g_input_stream_read_finish(G_INPUT_STREAM(source), result, error.out());
    auto core = turn->core.lock();
    if (!core)
      return;
    if (got > 0) {
      if (standard_error) {
        turn->standard_error.append(turn->error_buffer.data(), size_t(got));
      } else {
        Core& receiver = *core;
        if (receiver.open_batch)
          receiver.open_batch();
        turn->splitter.append(std::string_view(turn->output_buffer.data(), size_t(got)),
                              [&](std::string_view line) { turn->sendLine(receiver, line); });
        if (receiver.close_batch)
          receiver.close_batch();
      }
      readOutput(turn, standard_error);
      return;
    }
    // End of the stream, or a read error, which ends it just the same.
    (standard_error ? turn->error_ended : turn->output_ended) = true;
    finishIfDone(turn);
  });
  g_input_stream_read_async(stream, buffer.data(), buffer.size(), kOutputPriority,
                            turn->cancellable.get(), callback, data);
}

void AgentTurns::writePrompt(const std::shared_ptr<Turn>& turn) {
  GOutputStream* input = g_subprocess_get_stdin_pipe(turn->process.get());
  if (turn->prompt.empty()) {
    g_output_stream_close(input, nullptr, nullptr);
    return;
  }
  // Non-blocking, so that each write takes only what the pipe has room for
  // and the main loop turns while the agent reads a long prompt.
  if (G_IS_UNIX_OUTPUT_STREAM(input))
    g_unix_set_fd_nonblocking(g_unix_output_stream_get_fd(G_UNIX_OUTPUT_STREAM(input)), TRUE,
                              nullptr);
  auto [callback, data] = Async([turn](GObject* source, GAsyncResult* result) {
    // A failed write (the agent exited without reading: EPIPE) is of no
    // consequence; its standard input is closed either way.
    g_output_stream_write_all_finish(G_OUTPUT_STREAM(source), result, nullptr, nullptr);
    g_output_stream_close(G_OUTPUT_STREAM(source), nullptr, nullptr);
    std::string().swap(turn->prompt);
  });
  g_output_stream_write_all_async(input, turn->prompt.data(), turn->prompt.size(),
                                  G_PRIORITY_DEFAULT, turn->cancellable.get(), callback, data);
}

void AgentTurns::finishIfDone(const std::shared_ptr<Turn>& turn) {
  if (turn->reported || !turn->output_ended || !turn->error_ended || !turn->exited)
    return;
  auto core = turn->core.lock();
  if (!core)
    return;
  turn->reported = true;
  // The last line may have had no line break.
  for (const auto& line : turn->splitter.finish())
    turn->sendLine(*core, line);
  // Whichever of two turns under one id ends first removes the shared entry.
  core->claude_tasks.erase(turn->id);
  core->send(DoneEvent(turn->id, turn->code,
                       IsValidUtf8(turn->standard_error) ? turn->standard_error : std::string()));
  SparLog("claude: turn %@ exited %d", turn->id, turn->code);
}

} // namespace orvane
