#include "web/DevServer.h"

#include "base/GObjectPtr.h"
#include "base/HttpResponseParser.h"
#include "base/SiteAddress.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <gio/gio.h>
#include <string>
#include <string_view>
#include <thread>

namespace orvane {

namespace {

// Interim answers (100 Continue) a probed server may send before its real
// one; more and it only stalls.
constexpr int kMaxInterimAnswers = 4;
constexpr int kMaxProbeRedirects = 5;

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

bool IsRedirect(long status) {
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
Exchange ProbeOnce(GUri* uri, gint64 deadline, HttpResponseParser& answer) {
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
  while (answer.feed({}) == HttpResponseParser::State::NeedMore) {
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
  return answer.finish() == HttpResponseParser::State::Done || answer.headArrived()
             ? Exchange::Answered
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
    // The answer is read to its end, but only its status and where it
    // redirects matter: the body is counted and dropped, so however long
    // the server keeps sending, the probe holds no more than one head.
    HttpResponseParser answer(HttpResponseParser::Body::Drop, kMaxInterimAnswers);
    if (ProbeOnce(uri, deadline, answer) != Exchange::Answered)
      break;
    const HttpResponse& response = answer.response();
    auto location = response.headers.find("location");
    if (!IsRedirect(response.status) || location == response.headers.end() ||
        location->second.empty()) {
      g_uri_unref(uri);
      return response.status == 200;
    }
    GUri* next = g_uri_parse_relative(uri, location->second.c_str(), G_URI_FLAGS_ENCODED, nullptr);
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
