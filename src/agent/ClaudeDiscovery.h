// Finds the Claude Code executable once per run: first in the places where
// its installers put it, then by asking the user's login shell, whose
// profile sets the PATH the user's terminal sees. The found path is kept for
// the rest of the run; it is never changed or cleared once set.
#pragma once

#include "bridge/Event.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// How much lower than the program's own the login shell's scheduling
// priority is: the look-up is background work.
inline constexpr int kShellNiceness = 10;

// The usual places, in the order they are tried: ~/.local/bin/claude,
// ~/.claude/local/claude, /opt/homebrew/bin/claude, /usr/local/bin/claude,
// ~/.npm-global/bin/claude, ~/.nvm/current/bin/claude.
std::vector<std::string> StandardClaudeCandidates(const std::string& home);

// An existing regular file (symbolic links followed) that we may execute.
bool IsExecutableFile(const std::string& path);

// $SHELL, or /bin/sh when it is unset or empty.
std::string LoginShell();

class ClaudeDiscovery {
public:
  // `store_has_account` tells whether the library store has an account
  // set, `spar_folder` gives the agent's working folder (creating it), and
  // `send_event` sends an event to the primary page. `home` empty means the
  // user's home folder, `shell` empty means LoginShell(); without
  // `candidates` the standard list under `home` is walked.
  ClaudeDiscovery(std::function<bool()> store_has_account, std::function<std::string()> spar_folder,
                  std::function<void(const Event&)> send_event, std::string home = "",
                  std::string shell = "",
                  std::optional<std::vector<std::string>> candidates = std::nullopt);
  ~ClaudeDiscovery();
  ClaudeDiscovery(const ClaudeDiscovery&) = delete;
  ClaudeDiscovery& operator=(const ClaudeDiscovery&) = delete;

  // Walks the candidates on the calling (main) thread; when none is
  // executable, asks the login shell ("$SHELL -lc 'command -v claude'"), at
  // a priority kShellNiceness lower than ours, on a thread of its own and
  // takes its answer back on this thread's main context. Runs once: later
  // calls do nothing.
  void findClaude();

  // The executable's absolute path, once found.
  const std::optional<std::string>& claudePath() const;

private:
  struct State;
  static void shellAnswered(const std::shared_ptr<State>& state, const std::string& answer);
  std::shared_ptr<State> state_;
};

} // namespace orvane
