// Runs the Claude Code agent for the pages' sparring conversations. A turn
// is one run of the agent: the page sends the arguments, the prompt pieces
// and the files the agent may read ("runClaude"); the files are laid down in
// the working folder, the agent starts there with the prompt on its standard
// input, every line of its standard output goes to the page as a
// "claudeLine" event as soon as it arrives, and one "claudeDone" event with
// the exit code and the standard-error text ends the turn. Each turn's agent
// leads a process group of its own, which whatever it starts joins;
// "stopClaude" asks that whole group to terminate.
//
// A hostile or broken agent or server cannot exhaust our memory or hold a
// turn open for ever: output lines, the standard error kept and fetched
// files are bounded, a fetch that falls silent fails, a stopped group that
// ignores the request is killed, and a turn ends soon after its agent exits
// even when a process it left behind holds the output open (AgentTurnLimits).
//
// Everything here runs on the main loop: output is read with GIO's
// asynchronous streams, the prompt is written without blocking however large
// it is, and downloads go through libsoup's asynchronous calls.
#pragma once

#include "agent/LineSplitter.h"
#include "base/GObjectPtr.h"
#include "bridge/Event.h"

#include <gio/gio.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// What one turn may cost, and how long it is waited for.
struct AgentTurnLimits {
  // The longest "claudeLine": a longer run of output without a line feed is
  // sent in pieces of at most this many bytes.
  size_t line_piece = LineSplitter::kDefaultPieceLimit;
  // The end of standard error kept for "claudeDone", cut to start at a
  // character.
  size_t kept_stderr = size_t(1) << 20;
  // The largest turn file fetched by "url"; a larger body fails the turn.
  size_t turn_file = size_t(256) << 20;
  // A fetch that receives nothing for this long fails.
  double fetch_idle_seconds = 60;
  // After "stopClaude"'s SIGTERM, SIGKILL follows this much later for
  // whatever of the turn's process group is still alive.
  double stop_grace_seconds = 5;
  // Once the agent has exited, its output is waited for this much longer
  // (a process it left behind may hold the pipes open); then the turn ends
  // with what has arrived, and its process group is ended as on a stop.
  double drain_seconds = 2;
};

class AgentTurns {
public:
  // Called once with nothing when every file is laid down, or with the error
  // text of the first download that failed.
  using FilesCompletion = std::function<void(const std::optional<std::string>& error)>;

  // `claude_path` gives the agent's executable when it is known,
  // `spar_folder` the working folder (creating it on each call), and
  // `send_event` sends an event to the primary page; it is called on the
  // main loop and must copy what it keeps (the line events of a turn share
  // one object). `home` empty means the user's home folder. Ignores SIGPIPE
  // for the whole program, so that a prompt written to an agent that has
  // already exited cannot kill us.
  AgentTurns(std::function<std::optional<std::string>()> claude_path,
             std::function<std::string()> spar_folder, std::function<void(const Event&)> send_event,
             std::string home = "", AgentTurnLimits limits = {});
  // Abandons the turns' bookkeeping without stopping their processes.
  ~AgentTurns();
  AgentTurns(const AgentTurns&) = delete;
  AgentTurns& operator=(const AgentTurns&) = delete;

  // The "runClaude" page action. Without a string "turn" and an array of
  // strings "args" nothing at all happens; otherwise the turn ends in
  // exactly one "claudeDone", after all of its "claudeLine" events.
  void runClaude(const nlohmann::json& body);

  // The "stopClaude" page action: SIGTERM to the process group of the
  // running turn named by "turn", and SIGKILL to what is left of it after
  // the grace; an unknown turn is ignored without a word.
  void stopClaude(const nlohmann::json& body);

  // Called around the events of one read of an agent's output, so that the
  // receiver may hand them over together.
  void setEventBatching(std::function<void()> open, std::function<void()> close);

  // The receiver's back-pressure: after each read of an agent's output,
  // when `backed_up` says the receiver is behind, that output is not read
  // again until the receiver calls the function handed to `when_drained`.
  // The agent then blocks on its full pipe; no line is dropped. While the
  // reading waits, the time an exited agent's output is waited for does not
  // run out.
  void setBackPressure(std::function<bool()> backed_up,
                       std::function<void(std::function<void()>)> when_drained);

  // Writes the entries of a "files" array into the working folder, one after
  // the other: "content" as UTF-8 text, else the body fetched from "url";
  // each atomically, under the last component of "name". Stops at the first
  // failed download; a body over the size limit and a fetch that receives
  // nothing for the idle time are failed downloads.
  void layDownFiles(const nlohmann::json& files, FilesCompletion completion);

  // The working folder, created if missing.
  std::string sparFolder() const;

  // The running turns: turn id to the agent's process.
  std::map<std::string, GObjectPtr<GSubprocess>> claudeTasks() const;

private:
  struct Core;
  struct Turn;
  struct Fetch;
  static void layDownFrom(const std::shared_ptr<Core>& core,
                          std::shared_ptr<const nlohmann::json> files, size_t index,
                          FilesCompletion completion);
  static void startTurn(const std::shared_ptr<Core>& core, const std::string& turn,
                        const std::vector<std::string>& args, const std::string& claude_path,
                        const nlohmann::json& body);
  static void waitForBody(const std::shared_ptr<Fetch>& fetch);
  static void readBody(const std::shared_ptr<Fetch>& fetch);
  static void endFetch(const std::shared_ptr<Fetch>& fetch,
                       const std::optional<std::string>& error);
  static std::string TooLarge(const Core& core);
  static void readOutput(const std::shared_ptr<Turn>& turn, bool standard_error);
  static void writePrompt(const std::shared_ptr<Turn>& turn);
  static void finishIfDone(const std::shared_ptr<Turn>& turn);
  static void waitForDrain(const std::shared_ptr<Core>& core, const std::shared_ptr<Turn>& turn);
  std::shared_ptr<Core> core_;
};

} // namespace orvane
