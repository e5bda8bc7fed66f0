// The local development server: when the site address points at this
// machine, the pages come from a development copy of the site in the project
// folder. Before a window loads its page the server is probed and, when it
// does not answer, started. Both calls block the calling (main) thread on
// purpose: the page must not load before the server is up.
#pragma once

#include <functional>
#include <string>

namespace orvane {

inline constexpr char kProbePath[] = "/api/papers";
inline constexpr double kProbeRequestTimeout = 1.0;
inline constexpr double kProbeWait = 1.5;
inline constexpr int kStartAttempts = 20;
inline constexpr double kStartAttemptDelay = 0.25;
// Where the start command sends the server's output (overwritten each start).
inline constexpr char kServerLogPath[] = "/tmp/shelfkeep.log";

// One probe: GET <site>/api/papers answered with exactly 200 within 1.5 s,
// the whole answer read (redirects on this machine followed); no byte for
// 1.0 s ends it too.
// It runs on the calling thread, without a thread or an HTTP session of its
// own, and reaches the server directly (never through a proxy).
bool ServerIsUp(const std::string& site_address);

// "cd <folder> && nohup .venv/bin/uvicorn main:app --port 8000 > /tmp/shelfkeep.log 2>&1 &"
// with the folder quoted for the shell (g_shell_quote), whatever its name.
std::string ServerStartCommand(const std::string& project_folder);

bool IsLocalSite(const std::string& site_address);

// What EnsureServer does to the world, replaceable in tests.
struct DevServerActions {
  std::function<bool(const std::string& site_address)> probe = ServerIsUp;
  std::function<void(const std::string& command)> runShell;
  std::function<void(double seconds)> sleep;
};
DevServerActions RealDevServerActions();

// What EnsureServer found.
enum class ServerOutcome {
  Remote,    // not a local site: nothing was done
  Answering, // the server answered the first probe
  Started,   // it was started and answered within the attempts
  NoAnswer,  // it was started and did not answer within the attempts
};

// Probes and, for a local site that does not answer, starts the server and
// waits for it: up to 20 attempts of a 0.25 s sleep and a probe.
ServerOutcome EnsureServer(const std::string& site_address, const std::string& project_folder,
                           const DevServerActions& actions = RealDevServerActions());

} // namespace orvane
