// ⌥V: the project's voice launcher, opened in the user's terminal.
#pragma once

#include <functional>
#include <string>

namespace orvane {

inline constexpr char kTerminalCommand[] = "x-terminal-emulator";

// project_dir + "/voice/Talk.command"
std::string TalkLauncherPath(const std::string& project_dir);

// Opens the launcher as `terminal -e LAUNCHER`, not waiting for it. When the
// launcher is not an executable file: the "nothing runnable" line and the
// beep, and nothing is started.
void OpenTalkLauncher(const std::string& project_dir, const std::function<void()>& beep,
                      const std::string& terminal = kTerminalCommand);

} // namespace orvane
