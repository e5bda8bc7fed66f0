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

} // namespace orvane
