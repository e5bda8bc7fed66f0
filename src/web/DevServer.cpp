#include "web/DevServer.h"

#include "base/GObjectPtr.h"
#include "base/SiteAddress.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <gio/gio.h>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace orvane {

namespace {

// Caps on what a probed server may send before its answer counts as bad.
constexpr size_t kMaxProbeLine = 16 * 1024;
constexpr int kMaxProbeHeaders = 100;
constexpr int kMaxInterimAnswers = 4;
constexpr int kMaxProbeRedirects = 5;
// Lengths beyond this are refused before they could overflow.
constexpr uint64_t kMaxProbeLength = uint64_t(1) << 56;

// Reads one HTTP/1.1 answer as it arrives: its status, where it redirects,
// and where it ends. The body is counted and dropped, so whatever the server
// sends, the reader holds no more than one line.
class ProbeAnswer {
public:
  enum class State { NeedMore, Done, Failed };

  State feed(std::string_view bytes) {
    while (!bytes.empty() && state_ == State::NeedMore) {
      if (step_ == Step::LengthBody || step_ == Step::ChunkData) {
        size_t take = size_t(std::min<uint64_t>(remaining_, bytes.size()));
        bytes.remove_prefix(take);
        remaining_ -= take;
        if (remaining_ == 0) {
          if (step_ == Step::LengthBody)
            state_ = State::Done;
          else
            step_ = Step::ChunkEnd;
        }
        continue;
      }
      if (step_ == Step::BodyToEnd)
        return state_;
      size_t end = bytes.find('\n');
      size_t take = end == std::string_view::npos ? bytes.size() : end;
      if (line_.size() + take > kMaxProbeLine + 1)
        return state_ = State::Failed;
      line_.append(bytes.data(), take);
      if (end == std::string_view::npos)
        return state_;
      bytes.remove_prefix(end + 1);
      if (!line_.empty() && line_.back() == '\r')
        line_.pop_back();
      takeLine();
      line_.clear();
    }
    return state_;
  }

  // The server closed the connection: an answer that runs to its end is
  // complete now, any other unfinished one has failed.
  State finish() {
    if (state_ == State::NeedMore)
      state_ = step_ == Step::BodyToEnd ? State::Done : State::Failed;
    return state_;
  }

  int status() const { return status_; }
  const std::string& location() const { return location_; }
  // The final answer's head has arrived: its status stands even when its
  // body then fails, as an interrupted transfer still has its response.
  bool headArrived() const { return head_arrived_; }

private:
  enum class Step {
    StatusLine,
    HeaderLine,
    LengthBody,
    ChunkSize,
    ChunkData,
    ChunkEnd,
    Trailer,
    BodyToEnd
  };

  static bool ParseLength(std::string_view text, int base, uint64_t& value) {
    if (text.empty())
      return false;
    value = 0;
    for (char c : text) {
      int digit = g_ascii_xdigit_value(c);
      if (digit < 0 || digit >= base)
        return false;
      value = value * uint64_t(base) + uint64_t(digit);
      if (value > kMaxProbeLength)
        return false;
    }
    return true;
  }

  static std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
      text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
      text.remove_suffix(1);
    return text;
  }

  void takeLine() {
    switch (step_) {
    case Step::StatusLine:
      statusLine();
      break;
    case Step::HeaderLine:
      headerLine();
      break;
    case Step::ChunkSize: {
      std::string_view size = Trimmed(std::string_view(line_).substr(0, line_.find(';')));
      if (!ParseLength(size, 16, remaining_))
        state_ = State::Failed;
      else if (remaining_ == 0)
        step_ = Step::Trailer;
      else
        step_ = Step::ChunkData;
      break;
    }
    case Step::ChunkEnd:
      if (!line_.empty())
        state_ = State::Failed;
      else
        step_ = Step::ChunkSize;
      break;
    case Step::Trailer:
      if (line_.empty())
        state_ = State::Done;
      else if (++header_lines_ > kMaxProbeHeaders)
        state_ = State::Failed;
      break;
    default:
      break;
    }
  }

  void statusLine() {
    // "HTTP/1.1 200 OK": the version, a space, three digits, then a space
    // and the reason, or nothing.
    std::string_view line = line_;
    size_t space = line.find(' ');
    std::string_view code = space == std::string_view::npos ? "" : line.substr(space + 1);
    if (line.rfind("HTTP/", 0) != 0 || code.size() < 3 || code[0] < '1' || code[0] > '9' ||
        !g_ascii_isdigit(code[1]) || !g_ascii_isdigit(code[2]) ||
        (code.size() > 3 && code[3] != ' ')) {
      state_ = State::Failed;
      return;
    }
    status_ = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
    header_lines_ = 0;
    length_.reset();
    bad_length_ = false;
    chunked_ = false;
    location_.clear();
    step_ = Step::HeaderLine;
  }

  void headerLine() {
    if (line_.empty()) {
      headEnded();
      return;
    }
    if (++header_lines_ > kMaxProbeHeaders) {
      state_ = State::Failed;
      return;
    }
    size_t colon = line_.find(':');
    if (colon == std::string::npos)
      return;
    GCharPtr name(g_ascii_strdown(line_.data(), gssize(colon)));
    std::string_view value = Trimmed(std::string_view(line_).substr(colon + 1));
    if (std::string_view(name.get()) == "content-length") {
      uint64_t length = 0;
      // A bad length, or two different ones: no telling where the body ends.
      if (!ParseLength(value, 10, length) || (length_ && *length_ != length))
        bad_length_ = true;
      length_ = length;
    } else if (std::string_view(name.get()) == "transfer-encoding") {
      GCharPtr lower(g_ascii_strdown(value.data(), gssize(value.size())));
      chunked_ = std::string_view(lower.get()).find("chunked") != std::string_view::npos;
    } else if (std::string_view(name.get()) == "location") {
      location_ = value;
    }
  }

  void headEnded() {
    if (status_ < 200) {
      // An interim answer (100 Continue); the real one follows, unless the
      // server only stalls with them.
      step_ = Step::StatusLine;
      if (++interim_answers_ > kMaxInterimAnswers)
        state_ = State::Failed;
      return;
    }
    head_arrived_ = true;
    if (bad_length_) {
      state_ = State::Failed;
    } else if (status_ == 204 || status_ == 304) {
      state_ = State::Done;
    } else if (chunked_) {
      step_ = Step::ChunkSize;
    } else if (length_) {
      remaining_ = *length_;
      if (remaining_ == 0)
        state_ = State::Done;
      else
        step_ = Step::LengthBody;
    } else {
      step_ = Step::BodyToEnd;
    }
  }

  State state_ = State::NeedMore;
  Step step_ = Step::StatusLine;
  std::string line_;
  int status_ = 0;
  int header_lines_ = 0;
  int interim_answers_ = 0;
  std::optional<uint64_t> length_;
  bool bad_length_ = false;
  bool head_arrived_ = false;
  bool chunked_ = false;
  uint64_t remaining_ = 0;
  std::string location_;
};

// Runs `context` until the pollable stream's `source` (attached to it
// here) fires or the monotonic clock passes `until`; true when it fired.
bool WaitForSource(GMainContext* context, GSource* source, gint64 until) {
  bool fired = false;
  // A pollable stream's source calls back with the stream first.
  GPollableSourceFunc on_ready = +[](GObject*, gpointer data) -> gboolean {
    *static_cast<bool*>(data) = true;
    return G_SOURCE_REMOVE;
  };
  g_source_set_callback(source, G_SOURCE_FUNC(on_ready), &fired, nullptr);
  g_source_set_name(source, "orvane: server probe");
  g_source_attach(source, context);
  while (!fired) {
    gint64 now = g_get_monotonic_time();
    if (now >= until)
      break;
    // A timer in the context bounds the wait of this one iteration.
    GSource* timer = g_timeout_source_new(guint((until - now + 999) / 1000));
    g_source_set_callback(
        timer, +[](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
    g_source_set_name(timer, "orvane: server probe deadline");
    g_source_attach(timer, context);
    g_main_context_iteration(context, TRUE);
    g_source_destroy(timer);
    g_source_unref(timer);
  }
  g_source_destroy(source);
  g_source_unref(source);
  return fired;
}

bool IsRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Text that goes into the request as it stands: no space and no control
// character, so that nothing in an address can add a line to the request.
bool FitsTheRequestLine(const char* text) {
  for (const char* c = text; c && *c; ++c)
    if (static_cast<unsigned char>(*c) <= 0x20 || *c == 0x7f)
      return false;
  return true;
}

enum class Exchange { Answered, Failed };

// One request on a fresh connection to `uri`: GET and read the answer, all
// by `deadline`; every wait for the server also ends after the request
// time-out without a byte. Answered when the answer's status is known.
Exchange ProbeOnce(GUri* uri, gint64 deadline, ProbeAnswer& answer) {
  const char* scheme = g_uri_get_scheme(uri);
  bool secure = g_ascii_strcasecmp(scheme, "https") == 0;
  if (!secure && g_ascii_strcasecmp(scheme, "http") != 0)
    return Exchange::Failed;
  const char* host = g_uri_get_host(uri);
  const char* path = g_uri_get_path(uri);
  const char* query = g_uri_get_query(uri);
  if (!host || !*host || !FitsTheRequestLine(host) || !FitsTheRequestLine(path) ||
      !FitsTheRequestLine(query))
    return Exchange::Failed;
  int port = g_uri_get_port(uri);
  if (port <= 0)
    port = secure ? 443 : 80;

  // A private context, run only here: nothing else of the program's runs
  // while the probe waits.
  GMainContextPtr context(g_main_context_new());
  g_main_context_push_thread_default(context.get());
  struct PopContext {
    GMainContext* context;
    ~PopContext() { g_main_context_pop_thread_default(context); }
  } pop{context.get()};

  auto client = GObjectPtr<GSocketClient>::adopt(g_socket_client_new());
  // A loopback server is reached directly: asking for the desktop's proxy
  // settings would cost more than the whole probe.
  g_socket_client_set_enable_proxy(client.get(), FALSE);
  g_socket_client_set_tls(client.get(), secure);
  g_socket_client_set_timeout(client.get(), guint(kProbeRequestTimeout));
  auto connection = GObjectPtr<GSocketConnection>::adopt(
      g_socket_client_connect_to_host(client.get(), host, guint16(port), nullptr, nullptr));
  if (!connection)
    return Exchange::Failed;
  g_socket_set_blocking(g_socket_connection_get_socket(connection.get()), FALSE);
  auto* in = G_POLLABLE_INPUT_STREAM(g_io_stream_get_input_stream(G_IO_STREAM(connection.get())));
  auto* out =
      G_POLLABLE_OUTPUT_STREAM(g_io_stream_get_output_stream(G_IO_STREAM(connection.get())));
  auto idle_end = [deadline] {
    return std::min(deadline, g_get_monotonic_time() + gint64(kProbeRequestTimeout * 1e6));
  };

  // An IPv6 literal goes between brackets; the port only when it is not
  // the scheme's own.
  std::string host_header = std::string_view(host).find(':') != std::string_view::npos
                                ? "[" + std::string(host) + "]"
                                : std::string(host);
  if (port != (secure ? 443 : 80))
    host_header += ":" + std::to_string(port);
  std::string request = std::string("GET ") + (*path ? path : "/") + (query ? "?" : "") +
                        (query ? query : "") + " HTTP/1.1\r\nHost: " + host_header +
                        "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
  std::string_view unsent = request;
  while (!unsent.empty()) {
    GErrorPtr error;
    gssize sent = g_pollable_output_stream_write_nonblocking(out, unsent.data(), unsent.size(),
                                                             nullptr, error.out());
    if (sent > 0) {
      unsent.remove_prefix(size_t(sent));
    } else if (error.matches(G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      if (!WaitForSource(context.get(), g_pollable_output_stream_create_source(out, nullptr),
                         idle_end()))
        return Exchange::Failed;
    } else {
      return Exchange::Failed;
    }
  }

  // The exchange ends when the answer is complete, the connection fails or
  // ends, or no byte has come for the request time-out; whatever status
  // had arrived by then stands. Only the end of the wait leaves none.
  char buffer[16384];
  while (answer.feed({}) == ProbeAnswer::State::NeedMore) {
    GErrorPtr error;
    gssize got =
        g_pollable_input_stream_read_nonblocking(in, buffer, sizeof buffer, nullptr, error.out());
    if (got > 0) {
      answer.feed(std::string_view(buffer, size_t(got)));
    } else if (got == 0) {
      answer.finish();
    } else if (!error.matches(G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      break;
    } else if (!WaitForSource(context.get(), g_pollable_input_stream_create_source(in, nullptr),
                              idle_end())) {
      if (g_get_monotonic_time() >= deadline)
        return Exchange::Failed;
      break;
    }
  }
  return answer.finish() == ProbeAnswer::State::Done || answer.headArrived() ? Exchange::Answered
                                                                             : Exchange::Failed;
}

} // namespace

bool IsLocalSite(const std::string& site_address) {
  std::string host = HostOf(site_address);
  return host == "127.0.0.1" || host == "localhost";
}

bool ServerIsUp(const std::string& site_address) {
  // On the calling (main) thread, on purpose: nothing else runs meanwhile.
  // A loopback server that answers costs about a millisecond.
  gint64 deadline = g_get_monotonic_time() + gint64(kProbeWait * 1e6);
  std::string address = site_address + kProbePath;
  // Kept as written (percent escapes stay escaped) for the request line.
  GUri* uri = g_uri_parse(address.c_str(), G_URI_FLAGS_ENCODED, nullptr);
  // Redirects are followed, as a browser would, within the same wait (and
  // on this machine only).
  for (int hop = 0; uri && hop <= kMaxProbeRedirects; ++hop) {
    ProbeAnswer answer;
    if (ProbeOnce(uri, deadline, answer) != Exchange::Answered)
      break;
    if (!IsRedirect(answer.status()) || answer.location().empty()) {
      g_uri_unref(uri);
      return answer.status() == 200;
    }
    GUri* next = g_uri_parse_relative(uri, answer.location().c_str(), G_URI_FLAGS_ENCODED, nullptr);
    g_uri_unref(uri);
    uri = next;
    // Only to this machine: a name elsewhere would be looked up, and that
    // wait is not bounded by the probe's.
    const char* host = uri ? g_uri_get_host(uri) : nullptr;
    if (!host || (g_strcmp0(host, "127.0.0.1") != 0 && g_strcmp0(host, "localhost") != 0))
      break;
  }
  if (uri)
    g_uri_unref(uri);
  return false;
}

std::string ServerStartCommand(const std::string& project_folder) {
  // Quoted for the shell, so that any folder name is one argument: a quote
  // or a ";" in the name can neither break the command nor add one.
  GCharPtr quoted(g_shell_quote(project_folder.c_str()));
  return "cd " + quoted.str() + " && nohup .venv/bin/uvicorn main:app --port 8000 > " +
         kServerLogPath + " 2>&1 &";
}

DevServerActions RealDevServerActions() {
  DevServerActions actions;
  actions.runShell = [](const std::string& command) {
    const gchar* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    GPid pid = 0;
    // The shell backgrounds the server with nohup and exits at once; its
    // failure to start is not reported. The server outlives this program.
    if (g_spawn_async(nullptr, const_cast<gchar**>(argv), nullptr, G_SPAWN_DEFAULT, nullptr,
                      nullptr, &pid, nullptr))
      g_spawn_close_pid(pid);
  };
  actions.sleep = [](double seconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(long(seconds * 1e6)));
  };
  return actions;
}

ServerOutcome EnsureServer(const std::string& site_address, const std::string& project_folder,
                           const DevServerActions& actions) {
  if (!IsLocalSite(site_address))
    return ServerOutcome::Remote;
  if (actions.probe(site_address))
    return ServerOutcome::Answering;
  actions.runShell(ServerStartCommand(project_folder));
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    actions.sleep(kStartAttemptDelay);
    if (actions.probe(site_address))
      return ServerOutcome::Started;
  }
  return ServerOutcome::NoAnswer;
}

} // namespace orvane
