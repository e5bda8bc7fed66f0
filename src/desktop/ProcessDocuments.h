// What /proc tells of the documents a process shows. X11 has no document
// attribute for a window, so its process's command line and open files stand
// in for one (the focused document of a capture, the window that shows a
// file when placing or splitting).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orvane {

// A process's command line, one string per argument, read within bounds
// (4 MiB, 4096 arguments); none when the process is gone.
std::vector<std::string> ProcessArguments(int pid, const std::string& proc_root = "/proc");
// A process's working folder; nothing when it cannot be read or is not an
// absolute path.
std::optional<std::string> ProcessWorkingFolder(int pid, const std::string& proc_root = "/proc");

// ".pdf" in any case at the end of the path.
bool HasPdfExtension(const std::string& path);

// The existing regular PDF files that the process names on its command line
// (absolute paths, paths relative to its working folder, file:// addresses)
// and then those it holds open, each file once (the same file under two
// names counts once, under the first name met). The reads are bounded and
// never wait on anything that is not a plain file, so a gone, huge or
// hostile process gives what could be read. `proc_root` is where the process
// table lives ("/proc"; tests give a folder of their own).
std::vector<std::string> PdfFilesOfProcess(int pid, const std::string& proc_root = "/proc");

// How many open files HoldsPseudoTerminalMaster looks at, at most.
inline constexpr size_t kMaxPseudoTerminalScan = 4096;

// Whether the process holds a pseudo-terminal master open ("/dev/ptmx" or
// "/dev/pts/ptmx" among its /proc/PID/fd links), as every terminal emulator
// does for the shells it runs. Only the first kMaxPseudoTerminalScan entries
// are read, each with readlink, so a process with a huge file table costs
// little. False for a pid that is not positive, gone, or not readable.
bool HoldsPseudoTerminalMaster(int pid, const std::string& proc_root = "/proc");

} // namespace orvane
