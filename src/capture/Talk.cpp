#include "capture/Talk.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"

#include <glib.h>

namespace orvane {

std::string TalkLauncherPath(const std::string& project_dir) {
  return project_dir + "/" + "voice/Talk.command";
}

void OpenTalkLauncher(const std::string& project_dir, const std::function<void()>& beep,
                      const std::string& terminal) {
  std::string launcher = TalkLauncherPath(project_dir);
  if (!g_file_test(launcher.c_str(), G_FILE_TEST_IS_REGULAR) ||
      !g_file_test(launcher.c_str(), G_FILE_TEST_IS_EXECUTABLE)) {
    SparLog("talk: nothing runnable at %@, is the venv built?", launcher);
    beep();
    return;
  }
  const gchar* argv[] = {terminal.c_str(), "-e", launcher.c_str(), nullptr};
  GErrorPtr error;
  if (!g_spawn_async(nullptr, const_cast<gchar**>(argv), nullptr,
                     GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                                 G_SPAWN_STDERR_TO_DEV_NULL),
                     nullptr, nullptr, nullptr, error.out())) {
    SparLog("talk: %@", error.message());
    return;
  }
  SparLog("talk: opened %@", launcher);
}

} // namespace orvane
