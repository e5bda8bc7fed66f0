// Serving the CLIPBOARD from memory through GTK's clipboard, so that the main
// loop answers other clients' requests; and the background keeper that goes
// on serving a restored CLIPBOARD after a one-shot capture process exits.
#pragma once

#include "desktop/session/KeptClipboard.h"

#include <functional>
#include <memory>
#include <string>

namespace orvane {

// What this process offers on the CLIPBOARD. `owned` turns false (and
// `on_lost` runs) once GTK gives the CLIPBOARD up: another client took it, or
// it was cleared.
struct ServedClipboard {
  std::vector<ServedTarget> targets;
  bool owned = false;
  std::function<void()> on_lost;
};

// Takes the CLIPBOARD of GDK's default display, offering exactly `targets`.
// Nothing without a display or when GTK refuses.
std::shared_ptr<ServedClipboard> ServeClipboard(std::vector<ServedTarget> targets);

// The executable's private argument that starts a keeper:
// `orvane --keep-clipboard FILE`.
inline constexpr char kKeepClipboardArgument[] = "--keep-clipboard";
// The folder a keeper accepts its file from ($XDG_CACHE_HOME/com.tarnwick.orvane)
// and the file name's beginning.
std::string KeptClipboardFolder();
inline constexpr char kKeptClipboardPrefix[] = "kept-clipboard-";

// Reads the kept file (only a 0600 regular file of this user, inside the
// folder above, named with the prefix; deleted once read), takes the
// CLIPBOARD unless another client took it since the hand-over, and serves it
// until another client takes it or the file's lifetime ends. Answers the
// process's exit status.
int RunClipboardKeeper(const std::string& path);

} // namespace orvane
