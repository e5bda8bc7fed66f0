// Watches one account folder for file changes with inotify and reports
// them in batches, one second after the first change of a batch, as the
// store expects. A move, deletion or unmount of the folder, or of the
// library folder that holds it, is reported as the root changing; an
// overflow of the kernel's event queue, as events lost.
#pragma once

#include "desktop/Scheduler.h"

#include <functional>
#include <glib.h>
#include <string>
#include <vector>

namespace orvane {

inline constexpr double kWatchLatency = 1.0;

struct FolderEvent {
  std::string path; // the full path of the changed file
  bool root_changed = false;
  bool events_lost = false; // the kernel's queue overflowed: any file may have changed
};

class FolderWatch {
public:
  using Callback = std::function<void(const std::vector<FolderEvent>& batch)>;
  FolderWatch(Scheduler& scheduler, Callback callback);
  ~FolderWatch();
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Starts watching `folder`, whose parent chain up to `top` counts as its
  // root. False when inotify cannot watch it.
  bool start(const std::string& folder, const std::string& top);
  void stop();

  // Takes events as read from the inotify descriptor; tests feed their own.
  void handleEvents(const char* bytes, size_t length);
  // The watch descriptor of the folder itself (-1 when not watching).
  int folderDescriptor() const { return folder_wd_; }

private:
  void readEvents();
  void queue(FolderEvent event);
  void flush();

  Scheduler& scheduler_;
  Callback callback_;
  int fd_ = -1;
  guint source_ = 0;
  int folder_wd_ = -1;
  std::vector<std::pair<int, std::string>> above_; // watch → the child on the way down
  std::string folder_;
  std::vector<FolderEvent> batch_;
  Scheduler::TimerId flush_timer_ = 0;
};

} // namespace orvane
