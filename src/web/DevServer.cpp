#include "web/DevServer.h"

#include "base/GObjectPtr.h"
#include "base/SiteAddress.h"

#include <chrono>
#include <condition_variable>
#include <libsoup/soup.h>
#include <memory>
#include <mutex>
#include <thread>

namespace orvane {

namespace {

// The probe's result, shared with the thread that makes the request so that
// a probe given up on after 1.5 s can finish on its own.
struct ProbeState {
  std::mutex mutex;
  std::condition_variable done_signal;
  bool done = false;
  bool up = false;
};

void RunProbe(std::shared_ptr<ProbeState> state, std::string address) {
  bool up = false;
  {
    GObjectPtr<SoupSession> session = GObjectPtr<SoupSession>::adopt(
        soup_session_new_with_options("timeout", guint(kProbeRequestTimeout), nullptr));
    GObjectPtr<SoupMessage> message =
        GObjectPtr<SoupMessage>::adopt(soup_message_new("GET", address.c_str()));
    if (message) {
      GBytesPtr body(soup_session_send_and_read(session.get(), message.get(), nullptr, nullptr));
      up = soup_message_get_status(message.get()) == SOUP_STATUS_OK;
    }
  }
  std::lock_guard<std::mutex> lock(state->mutex);
  state->up = up;
  state->done = true;
  state->done_signal.notify_all();
}

} // namespace

bool IsLocalSite(const std::string& site_address) {
  std::string host = HostOf(site_address);
  return host == "127.0.0.1" || host == "localhost";
}

bool ServerIsUp(const std::string& site_address) {
  auto state = std::make_shared<ProbeState>();
  // Synchronous libsoup on a thread of its own: the main loop is not run
  // while the caller waits, so nothing else happens meanwhile.
  std::thread(RunProbe, state, site_address + kProbePath).detach();
  std::unique_lock<std::mutex> lock(state->mutex);
  state->done_signal.wait_for(lock, std::chrono::milliseconds(int(kProbeWait * 1000)),
                              [&] { return state->done; });
  return state->done && state->up;
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
