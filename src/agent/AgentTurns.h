// Runs the Claude Code agent for the pages' sparring conversations. A turn
// is one run of the agent: the page sends the arguments, the prompt pieces
// and the files the agent may read ("runClaude"); the files are laid down in
// the working folder, the agent starts there with the prompt on its standard
// input, every line of its standard output goes to the page as a
// "claudeLine" event as soon as it arrives, and one "claudeDone" event with
// the exit code and the standard-error text ends the turn. "stopClaude"
// asks a running turn's process to terminate.
//
// Everything here runs on the main loop: output is read with GIO's
// asynchronous streams, the prompt is written without blocking however large
// it is, and downloads go through libsoup's asynchronous calls.
#pragma once

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
             std::string home = "");
  // Abandons the turns' bookkeeping without stopping their processes.
  ~AgentTurns();
  AgentTurns(const AgentTurns&) = delete;
  AgentTurns& operator=(const AgentTurns&) = delete;

  // The "runClaude" page action. Without a string "turn" and an array of
  // strings "args" nothing at all happens; otherwise the turn ends in
  // exactly one "claudeDone", after all of its "claudeLine" events.
  void runClaude(const nlohmann::json& body);

  // The "stopClaude" page action: SIGTERM to the running turn named by
  // "turn"; an unknown turn is ignored without a word.
  void stopClaude(const nlohmann::json& body);

  // Called around the events of one read of an agent's output, so that the
  // receiver may hand them over together.
  void setEventBatching(std::function<void()> open, std::function<void()> close);

  // Writes the entries of a "files" array into the working folder, one after
  // the other: "content" as UTF-8 text, else the body fetched from "url";
  // each atomically, under the last component of "name". Stops at the first
  // failed download.
  void layDownFiles(const nlohmann::json& files, FilesCompletion completion);

  // The working folder, created if missing.
  std::string sparFolder() const;

  // The running turns: turn id to the agent's process.
  const std::map<std::string, GObjectPtr<GSubprocess>>& claudeTasks() const;

private:
  struct Core;
  struct Turn;
  static void layDownFrom(const std::shared_ptr<Core>& core,
                          std::shared_ptr<const nlohmann::json> files, size_t index,
                          FilesCompletion completion);
  static void startTurn(const std::shared_ptr<Core>& core, const std::string& turn,
                        const std::vector<std::string>& args, const std::string& claude_path,
                        const nlohmann::json& body);
  static void readOutput(const std::shared_ptr<Turn>& turn, bool standard_error);
  static void writePrompt(const std::shared_ptr<Turn>& turn);
  static void finishIfDone(const std::shared_ptr<Turn>& turn);
  std::shared_ptr<Core> core_;
};

} // namespace orvane
