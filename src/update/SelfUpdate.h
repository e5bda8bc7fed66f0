// The update that replaces the running install folder with a newer signed
// one: download, unpack, check the signature against this copy's key, swap
// the folders, relaunch the new program and quit. Every stage is logged and
// sent to the page as an event.
#pragma once

#include <cstdint>

#include "bridge/Event.h"
#include "desktop/Scheduler.h"
#include "update/FolderMoves.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

inline constexpr char kAppTranslocatedMessage[] =
    "Move Orvane into your Applications folder first, then update.";
inline constexpr char kFolderNotWritableMessage[] =
    "This app's folder is not writable. Move it to your Applications folder and try again.";

// Makes the folder at `path` for this user alone (0700), failing when
// anything (a folder, a file, a link) is there already, so that a name
// another user prepared is never taken over. False with the reason if not.
bool MakeFolderOfOurOwn(const std::string& path, std::string& error);
// A fresh folder of our own in `parent`, named `prefix` and a new UUID;
// empty with the reason when none could be made.
std::string MakePrivateFolder(const std::string& parent, const std::string& prefix,
                              std::string* error = nullptr);

// Unpacks a zip archive into `folder`. Entries that would land outside it
// (absolute paths, ".." components), links that point outside it, and
// entries that are neither files, folders nor links are refused: the result
// is false and the unpacking stops. An archive that cannot be read is not a
// refusal: what could be unpacked stays, and the search for the app decides.
// An archive that unpacks to more than `max_bytes` or holds more than
// `max_entries` entries is refused the same way, so that a small download
// cannot fill the disk. Modes are not the archive's to give: every folder
// below `folder` is made 0755, and files keep only the bits of
// kInstalledModeBits (the signature check then wants exactly the signed
// mode).
// libarchive is opened by the first call; when it cannot be, nothing is
// unpacked and the result is false (the log says why, once).
struct UnpackLimits {
  uint64_t max_bytes = uint64_t(4) << 30;
  size_t max_entries = 200000;
};
bool UnpackArchive(const std::string& archive, const std::string& folder, UnpackLimits limits = {});

// The app inside an unpacked update: each top-level folder holding
// bin/orvane and share/orvane/MANIFEST; of several, the last in name order.
std::optional<std::string> FindCandidate(const std::string& folder);

// Whether the install folder runs from a copy the user cannot keep: a
// read-only file system or a temporary mount such as /tmp/.mount_*.
bool IsTranslocated(const std::string& install_folder);

// Empty when the running copy's MANIFEST verifies under its own key and
// names this application; else why not.
std::string OwnSignatureProblem(const std::string& install_folder);

// The command line that starts the new program once the old one is gone:
// /bin/sh waits, then runs the executable, whose path it gets as an
// argument ($0) and never reads as part of its command text.
std::vector<std::string> RelaunchArguments(const std::string& executable, double delay_seconds);

struct SelfUpdateSeams {
  // The running bundle: the install folder, or the build folder of a run
  // from the build tree (which has no signature).
  std::string install_folder;
  // Where work folders go (the system temporary folder).
  std::string temp_folder;
  Scheduler& scheduler;
  std::function<void(const Event&)> send_event;
  std::function<void()> quit;
  // Moves the candidate into the old folder's place; empty or the error's
  // text. Tests make it fail to see the rollback.
  std::function<std::string(const std::string& from, const std::string& to)> move_into_place;
  double relaunch_delay = 1.5;
  double quit_delay = 0.5;
};

class SelfUpdate {
public:
  explicit SelfUpdate(SelfUpdateSeams seams);
  ~SelfUpdate();

  // Starts an update from the archive at this address; outcomes arrive as
  // events. Each call runs on its own, with its own work folder.
  void updateFrom(const std::string& address);

  // The work folder of the latest update ("" before any).
  const std::string& lastWorkFolder() const { return last_work_folder_; }

private:
  void updateProgress(const std::string& stage);
  void updateFailed(const std::string& message);
  void downloaded(const std::string& archive, const std::string& work_folder,
                  std::optional<std::string> error, long status);
  void unpacked(std::optional<std::string> candidate, bool unpacked,
                const std::string& work_folder);
  void install(const std::string& candidate, const std::string& work_folder);
  void swap(const Staged& staged, const std::string& work_folder);

  SelfUpdateSeams seams_;
  std::string last_work_folder_;
  // Lets callbacks that arrive after destruction do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace orvane
