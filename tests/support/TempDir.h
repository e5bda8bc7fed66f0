// A temporary folder that is removed with everything in it.
#pragma once

#include <cstdlib>
#include <fstream>
#include <glib.h>
#include <glib/gstdio.h>
#include <string>

namespace orvane {

class TempDir {
public:
  TempDir() {
    char* made = g_dir_make_tmp("orvane-test-XXXXXX", nullptr);
    path_ = made ? made : "/tmp";
    g_free(made);
  }
  ~TempDir() { Remove(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

  // Writes text to a file in the folder, creating folders on the way.
  std::string write(const std::string& name, const std::string& text) const {
    std::string full = file(name);
    WriteFile(full, text);
    return full;
  }

  static void WriteFile(const std::string& full, const std::string& text) {
    gchar* folder = g_path_get_dirname(full.c_str());
    g_mkdir_with_parents(folder, 0755);
    g_free(folder);
    std::ofstream(full, std::ios::binary | std::ios::trunc) << text;
  }

  static std::string Read(const std::string& path) {
    gchar* text = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.c_str(), &text, &length, nullptr))
      return "";
    std::string result(text, length);
    g_free(text);
    return result;
  }

private:
  static void Remove(const std::string& path) {
    if (path.empty() || path == "/tmp")
      return;
    if (g_file_test(path.c_str(), G_FILE_TEST_IS_DIR) &&
        !g_file_test(path.c_str(), G_FILE_TEST_IS_SYMLINK)) {
      GDir* dir = g_dir_open(path.c_str(), 0, nullptr);
      if (dir) {
        while (const char* name = g_dir_read_name(dir))
          Remove(path + "/" + name);
        g_dir_close(dir);
      }
      g_rmdir(path.c_str());
    } else {
      g_unlink(path.c_str());
    }
  }
  std::string path_;
};

// Points HOME and every XDG folder into a fresh temporary folder for the
// rest of the process, so that settings, the log and the library never
// touch the user's own. Call first thing in a test program's main.
inline const TempDir& UseThrowawayHome() {
  static TempDir home;
  setenv("HOME", home.path().c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home.path() + "/.config").c_str(), 1);
  setenv("XDG_STATE_HOME", (home.path() + "/.local/state").c_str(), 1);
  setenv("XDG_CACHE_HOME", (home.path() + "/.cache").c_str(), 1);
  setenv("XDG_DATA_HOME", (home.path() + "/.local/share").c_str(), 1);
  unsetenv("XDG_DOCUMENTS_DIR");
  return home;
}

} // namespace orvane
