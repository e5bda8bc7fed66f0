// The names a running application may go by, for whichever backend lists
// the windows.
#pragma once

#include <string>
#include <vector>

namespace orvane {

// For a desktop-file id or a window-class name: the name itself, the id
// without ".desktop", the desktop file's StartupWMClass and its executable's
// file name. Lower-case, without duplicates.
std::vector<std::string> ApplicationNames(const std::string& name);

// The file name of the process's executable, "" when it cannot be read.
std::string ExecutableNameOfPid(int pid);

// ASCII lower case.
std::string LowerAscii(std::string text);

// A normal window as the window list gives it: its process and the names
// it goes by (WM_CLASS parts, a Wayland app id, a desktop-file id).
struct NamedWindow {
  int pid = 0;
  std::vector<std::string> names;
};

// The processes of the windows that go by one of the application's names
// (ApplicationNames), or whose executable does, in the order of their first
// window; without duplicates. Empty for an empty name.
std::vector<int> PidsOfApplication(const std::string& name,
                                   const std::vector<NamedWindow>& windows);

} // namespace orvane
