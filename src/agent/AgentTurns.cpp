#include "agent/AgentTurns.h"

#include "agent/AgentPrompt.h"
#include "agent/LineSplitter.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/session/GLibScheduler.h"

#include <fcntl.h>
#include <gio/gunixoutputstream.h>
#include <glib-unix.h>
#include <glib/gstdio.h>
#include <libsoup/soup.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
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

// Seconds as the reasons of failed fetches print them: "60", "0.5".
std::string SecondsText(double seconds) {
  char text[32];
  snprintf(text, sizeof text, "%g", seconds);
  return text;
}

// The end of standard error: its last `limit` bytes, starting at a
// character (up to three continuation bytes at the cut are left out).
// Text that is not UTF-8 becomes empty.
std::string KeptStandardError(const std::string& all, size_t limit) {
  size_t start = all.size() > limit ? all.size() - limit : 0;
  for (int skipped = 0;
       skipped < 3 && start < all.size() && (static_cast<unsigned char>(all[start]) & 0xC0) == 0x80;
       ++skipped)
    ++start;
  std::string kept = all.substr(start);
  return IsValidUtf8(kept) ? kept : std::string();
}

// Sends a signal to every process of a turn's process group.
bool SignalGroup(pid_t group, int signal_number) {
  return group > 0 && kill(-group, signal_number) == 0;
}

// Runs in the agent's process between fork and exec: the agent leads a
// session and process group of its own, which every process it starts
// joins, so that stopping the turn reaches all of them.
void LeadOwnProcessGroup(gpointer) {
  setsid();
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
  std::function<bool()> backed_up;
  std::function<void(std::function<void()>)> when_drained;
  std::string home;
  AgentTurnLimits limits;
  GObjectPtr<SoupSession> session;
  GLibScheduler scheduler;
  // The running turns by id: a second turn under an id takes the place of
  // the first, and a turn's end removes only its own entry.
  std::map<std::string, std::shared_ptr<Turn>> turns;
  // What is under way (turns, fetches): cancelled when we go away.
  std::map<GCancellable*, GObjectPtr<GCancellable>> under_way;

  void send(const Event& event) {
    if (send_event)
      send_event(event);
  }
  std::string folder() { return spar_folder ? spar_folder() : std::string(); }

  GObjectPtr<GCancellable> startWork() {
    auto cancellable = GObjectPtr<GCancellable>::adopt(g_cancellable_new());
    under_way[cancellable.get()] = cancellable;
    return cancellable;
  }
  void endWork(const GObjectPtr<GCancellable>& cancellable) {
    g_cancellable_cancel(cancellable.get());
    under_way.erase(cancellable.get());
  }
};

struct AgentTurns::Turn {
  std::weak_ptr<Core> core;
  std::string id;
  GObjectPtr<GSubprocess> process;
  pid_t group = 0; // the agent's process id, which is its group's id
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
  bool output_abandoned = false; // pipes still open when the drain time ran out
  bool output_paused = false;    // the receiver is behind: output is not read
  int code = 0;
  Scheduler::TimerId drain_timer = 0;
  Scheduler::TimerId kill_timer = 0;

  explicit Turn(size_t line_piece) : splitter(line_piece) {}

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
    // A longer line than any before: let go of the old text first, so that
    // a long line is never held twice while being copied.
    if (line.size() > line_text->capacity())
      std::string().swap(*line_text);
    line_text->assign(line);
    core.send(line_event);
  }

  // Keeps the end of standard error only: at most twice the limit is held
  // between trims.
  void keepStandardError(const char* bytes, size_t length, size_t limit) {
    standard_error.append(bytes, length);
    if (standard_error.size() > 2 * limit)
      standard_error.erase(0, standard_error.size() - limit);
  }

  // SIGTERM to the whole process group now, SIGKILL to whatever of it is
  // still alive after the grace.
  void endGroup(Core& core) {
    SignalGroup(group, SIGTERM);
    if (kill_timer)
      return;
    pid_t target = group;
    kill_timer = core.scheduler.after(core.limits.stop_grace_seconds, [target] {
      if (SignalGroup(target, 0))
        SignalGroup(target, SIGKILL);
    });
  }
};

// A turn file being fetched by "url": the body goes to a temporary file in
// the working folder, renamed over the file's name once complete, and is
// cut off when it grows past the limit or nothing arrives for the idle time.
struct AgentTurns::Fetch {
  std::weak_ptr<Core> core;
  std::shared_ptr<const nlohmann::json> files;
  size_t index = 0;
  std::string name;
  std::string folder;
  FilesCompletion completion;
  GObjectPtr<GCancellable> cancellable;
  GObjectPtr<SoupMessage> message;
  GObjectPtr<GInputStream> body;
  std::vector<char> buffer = std::vector<char>(kReadSize);
  std::string temporary; // path of the temporary file, while there is one
  int fd = -1;
  size_t received = 0;
  bool write_failed = false;
  bool timed_out = false;
  Scheduler::TimerId idle_timer = 0;

  ~Fetch() { dropTemporary(); }

  void dropTemporary() {
    if (fd >= 0)
      close(std::exchange(fd, -1));
    if (!temporary.empty())
      g_unlink(std::exchange(temporary, std::string()).c_str());
  }
  void writeBody(const char* bytes, size_t length) {
    if (write_failed)
      return;
    if (fd < 0) {
      std::string pattern = folder + "/.turn-file-XXXXXX";
      fd = g_mkstemp_full(pattern.data(), O_RDWR | O_CLOEXEC, 0644);
      if (fd < 0) {
        write_failed = true;
        return;
      }
      temporary = pattern;
    }
    while (length > 0) {
      ssize_t written = write(fd, bytes, length);
      if (written < 0 && errno == EINTR)
        continue;
      if (written <= 0) {
        write_failed = true;
        dropTemporary();
        return;
      }
      bytes += written;
      length -= size_t(written);
    }
  }
};

AgentTurns::AgentTurns(std::function<std::optional<std::string>()> claude_path,
                       std::function<std::string()> spar_folder,
                       std::function<void(const Event&)> send_event, std::string home,
                       AgentTurnLimits limits)
    : core_(std::make_shared<Core>()) {
  IgnoreSigpipe();
  core_->claude_path = std::move(claude_path);
  core_->spar_folder = std::move(spar_folder);
  core_->send_event = std::move(send_event);
  core_->home = home.empty() ? HomeFolder() : std::move(home);
  core_->limits = limits;
  core_->session = GObjectPtr<SoupSession>::adopt(soup_session_new());
}

void AgentTurns::setEventBatching(std::function<void()> open, std::function<void()> close) {
  core_->open_batch = std::move(open);
  core_->close_batch = std::move(close);
}

void AgentTurns::setBackPressure(std::function<bool()> backed_up,
                                 std::function<void(std::function<void()>)> when_drained) {
  core_->backed_up = std::move(backed_up);
  core_->when_drained = std::move(when_drained);
}

AgentTurns::~AgentTurns() {
  for (auto& [raw, cancellable] : core_->under_way)
    g_cancellable_cancel(cancellable.get());
}

std::string AgentTurns::sparFolder() const {
  return core_->folder();
}

std::map<std::string, GObjectPtr<GSubprocess>> AgentTurns::claudeTasks() const {
  std::map<std::string, GObjectPtr<GSubprocess>> tasks;
  for (const auto& [id, turn] : core_->turns)
    tasks.emplace(id, turn->process);
  return tasks;
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
  auto found = core_->turns.find(*turn);
  if (found == core_->turns.end())
    return;
  found->second->endGroup(*core_);
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
    auto fetch = std::make_shared<Fetch>();
    fetch->core = core;
    fetch->files = std::move(files);
    fetch->index = index;
    fetch->name = name;
    fetch->folder = core->folder();
    fetch->completion = std::move(completion);
    fetch->cancellable = core->startWork();
    fetch->message = GObjectPtr<SoupMessage>::adopt(soup_message_new_from_uri("GET", uri.get()));
    waitForBody(fetch);
    auto [callback, data] = Async([fetch](GObject* source, GAsyncResult* result) {
      GErrorPtr error;
      fetch->body = GObjectPtr<GInputStream>::adopt(
          soup_session_send_finish(SOUP_SESSION(source), result, error.out()));
      auto core = fetch->core.lock();
      if (!core)
        return;
      if (!fetch->body) {
        endFetch(fetch, error.message().empty() ? "download failed" : error.message());
        return;
      }
      // The HTTP status is not looked at: an error page's body becomes
      // the file. A body declared larger than allowed is not read at all.
      SoupMessageHeaders* headers = soup_message_get_response_headers(fetch->message.get());
      if (soup_message_headers_get_encoding(headers) == SOUP_ENCODING_CONTENT_LENGTH &&
          uint64_t(soup_message_headers_get_content_length(headers)) > core->limits.turn_file) {
        endFetch(fetch, TooLarge(*core));
        return;
      }
      readBody(fetch);
    });
    soup_session_send_async(core->session.get(), fetch->message.get(), G_PRIORITY_DEFAULT,
                            fetch->cancellable.get(), callback, data);
    return;
  }
  completion(std::nullopt);
}

std::string AgentTurns::TooLarge(const Core& core) {
  return "the file is larger than " + std::to_string(core.limits.turn_file) + " bytes";
}

void AgentTurns::waitForBody(const std::shared_ptr<Fetch>& fetch) {
  auto core = fetch->core.lock();
  if (!core)
    return;
  core->scheduler.cancel(fetch->idle_timer);
  std::weak_ptr<Fetch> weak = fetch;
  fetch->idle_timer = core->scheduler.after(core->limits.fetch_idle_seconds, [weak] {
    if (auto fetch = weak.lock()) {
      fetch->idle_timer = 0;
      fetch->timed_out = true;
      g_cancellable_cancel(fetch->cancellable.get());
    }
  });
}

void AgentTurns::readBody(const std::shared_ptr<Fetch>& fetch) {
  waitForBody(fetch);
  auto [callback, data] = Async([fetch](GObject* source, GAsyncResult* result) {
    GErrorPtr error;
    gssize got = g_input_stream_read_finish(G_INPUT_STREAM(source), result, error.out());
    auto core = fetch->core.lock();
    if (!core)
      return;
    if (got < 0) {
      endFetch(fetch, error.message().empty() ? "download failed" : error.message());
      return;
    }
    if (got == 0) {
      g_input_stream_close(fetch->body.get(), nullptr, nullptr);
      endFetch(fetch, std::nullopt);
      return;
    }
    fetch->received += size_t(got);
    if (fetch->received > core->limits.turn_file) {
      endFetch(fetch, TooLarge(*core));
      return;
    }
    fetch->writeBody(fetch->buffer.data(), size_t(got));
    readBody(fetch);
  });
  g_input_stream_read_async(fetch->body.get(), fetch->buffer.data(), fetch->buffer.size(),
                            G_PRIORITY_DEFAULT, fetch->cancellable.get(), callback, data);
}

void AgentTurns::endFetch(const std::shared_ptr<Fetch>& fetch,
                          const std::optional<std::string>& error) {
  auto core = fetch->core.lock();
  if (!core)
    return;
  core->scheduler.cancel(std::exchange(fetch->idle_timer, 0));
  core->endWork(fetch->cancellable);
  FilesCompletion completion = std::move(fetch->completion);
  if (error) {
    fetch->dropTemporary();
    completion(fetch->timed_out
                   ? "nothing received for " + SecondsText(core->limits.fetch_idle_seconds) + " s"
                   : *error);
    return;
  }
  // A file that could not be written is skipped like a failed "content"
  // write; an empty body still makes an empty file.
  if (!fetch->write_failed) {
    if (fetch->fd < 0)
      fetch->writeBody("", 0);
    if (fetch->fd >= 0 && IsFileName(fetch->name) && close(std::exchange(fetch->fd, -1)) == 0 &&
        g_rename(fetch->temporary.c_str(), (fetch->folder + "/" + fetch->name).c_str()) == 0)
      fetch->temporary.clear();
  }
  fetch->dropTemporary();
  layDownFrom(core, fetch->files, fetch->index + 1, std::move(completion));
}

void AgentTurns::startTurn(const std::shared_ptr<Core>& core, const std::string& turn_id,
                           const std::vector<std::string>& args, const std::string& claude_path,
                           const nlohmann::json& body) {
  std::string folder = core->folder();
  auto turn = std::make_shared<Turn>(core->limits.line_piece);
  turn->core = core;
  turn->id = turn_id;
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
  g_subprocess_launcher_set_child_setup(launcher.get(), LeadOwnProcessGroup, nullptr, nullptr);
  GErrorPtr error;
  turn->process = GObjectPtr<GSubprocess>::adopt(
      g_subprocess_launcher_spawnv(launcher.get(), argv.data(), error.out()));
  if (!turn->process) {
    core->send(DoneEvent(turn_id, 1,
                         error.message().empty() ? "could not start claude" : error.message()));
    return;
  }
  if (const char* pid = g_subprocess_get_identifier(turn->process.get()))
    turn->group = pid_t(g_ascii_strtoll(pid, nullptr, 10));
  turn->cancellable = core->startWork();

  // A second turn under the id of a running one takes its place here.
  core->turns[turn_id] = turn;
  SparLog("claude: turn %@ started (%lu args, %lu-char prompt)", turn_id,
          static_cast<unsigned long>(args.size()),
          static_cast<unsigned long>(Utf16Length(turn->prompt)));

  readOutput(turn, false);
  readOutput(turn, true);
  auto [callback, data] = Async([turn](GObject* source, GAsyncResult* result) {
    GErrorPtr error;
    bool waited = g_subprocess_wait_finish(G_SUBPROCESS(source), result, error.out());
    auto core = turn->core.lock();
    if (!waited || !core || turn->reported)
      return; // cancelled: nobody is left to tell
    GSubprocess* process = G_SUBPROCESS(source);
    turn->code = g_subprocess_get_if_signaled(process) ? g_subprocess_get_term_sig(process)
                                                       : g_subprocess_get_exit_status(process);
    turn->exited = true;
    // A process the agent left behind may hold its output open: wait for
    // that only a little, then end the turn with what has arrived.
    if (!turn->output_ended || !turn->error_ended)
      waitForDrain(core, turn);
    finishIfDone(turn);
  });
  g_subprocess_wait_async(turn->process.get(), turn->cancellable.get(), callback, data);
  writePrompt(turn);
}

void AgentTurns::waitForDrain(const std::shared_ptr<Core>& core,
                              const std::shared_ptr<Turn>& turn) {
  std::weak_ptr<Turn> weak = turn;
  turn->drain_timer = core->scheduler.after(core->limits.drain_seconds, [weak] {
    auto turn = weak.lock();
    auto core = turn ? turn->core.lock() : nullptr;
    if (!turn || !core || turn->reported)
      return;
    turn->drain_timer = 0;
    // Output not read because the page is behind is not a process holding
    // the pipe open: wait on.
    if (turn->output_paused) {
      waitForDrain(core, turn);
      return;
    }
    turn->output_ended = turn->error_ended = true;
    turn->output_abandoned = true;
    finishIfDone(turn);
  });
}

void AgentTurns::readOutput(const std::shared_ptr<Turn>& turn, bool standard_error) {
  GInputStream* stream = standard_error ? g_subprocess_get_stderr_pipe(turn->process.get())
                                        : g_subprocess_get_stdout_pipe(turn->process.get());
  std::vector<char>& buffer = standard_error ? turn->error_buffer : turn->output_buffer;
  auto [callback, data] = Async([turn, standard_error](GObject* source, GAsyncResult* result) {
    GErrorPtr error;
    gssize got = g_input_stream_read_finish(G_INPUT_STREAM(source), result, error.out());
    auto core = turn->core.lock();
    // Once the turn is reported nothing more of it goes out.
    if (!core || turn->reported)
      return;
    if (got > 0) {
      if (standard_error) {
        turn->keepStandardError(turn->error_buffer.data(), size_t(got), core->limits.kept_stderr);
      } else {
        Core& receiver = *core;
        if (receiver.open_batch)
          receiver.open_batch();
        turn->splitter.append(std::string_view(turn->output_buffer.data(), size_t(got)),
                              [&](std::string_view line) { turn->sendLine(receiver, line); });
        if (receiver.close_batch)
          receiver.close_batch();
        if (receiver.backed_up && receiver.when_drained && receiver.backed_up()) {
          turn->output_paused = true;
          std::weak_ptr<Turn> weak = turn;
          receiver.when_drained([weak] {
            auto turn = weak.lock();
            if (!turn || turn->reported || !turn->output_paused)
              return;
            turn->output_paused = false;
            readOutput(turn, false);
          });
          return;
        }
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
  core->scheduler.cancel(std::exchange(turn->drain_timer, 0));
  // Whatever is still under way (reads of pipes held open by a process the
  // agent left, a prompt nobody reads) ends here.
  core->endWork(turn->cancellable);
  // The last line may have had no line break.
  turn->splitter.finish({}, [&](std::string_view line) { turn->sendLine(*core, line); });
  // Only the turn's own entry: a later turn under the same id keeps its own.
  auto found = core->turns.find(turn->id);
  if (found != core->turns.end() && found->second == turn)
    core->turns.erase(found);
  core->send(DoneEvent(turn->id, turn->code,
                       KeptStandardError(turn->standard_error, core->limits.kept_stderr)));
  std::string().swap(turn->standard_error);
  SparLog("claude: turn %@ exited %d", turn->id, turn->code);
  if (SignalGroup(turn->group, 0)) {
    // Processes the agent started still hold its output: they end with the
    // turn. Others of its group are left alone unless the turn was stopped.
    if (turn->output_abandoned) {
      SparLog("claude: turn %@ left processes holding its output; ending them", turn->id);
      turn->endGroup(*core);
    }
  } else {
    // Nothing of the group is left to end.
    core->scheduler.cancel(std::exchange(turn->kill_timer, 0));
  }
}

} // namespace orvane
