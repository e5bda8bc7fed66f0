#include "library/FolderWatch.h"

#include "base/Paths.h"

#include <algorithm>
#include <cstring>
#include <glib-unix.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace orvane {

namespace {
constexpr uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MODIFY | IN_CREATE | IN_ATTRIB;
constexpr uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF;
// A watch also ends when its folder's file system is unmounted (IN_UNMOUNT)
// or the kernel drops it for any reason (IN_IGNORED); both come unasked.
constexpr uint32_t kWatchEnded = kSelfEvents | IN_UNMOUNT | IN_IGNORED;

std::string ParentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}
} // namespace

FolderWatch::FolderWatch(Scheduler& scheduler, Callback callback)
    : scheduler_(scheduler), callback_(std::move(callback)) {}

FolderWatch::~FolderWatch() {
  stop();
}

bool FolderWatch::start(const std::string& folder, const std::string& top) {
  stop();
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0)
    return false;
  folder_wd_ = inotify_add_watch(fd_, folder.c_str(), kFileEvents | kSelfEvents | IN_ONLYDIR);
  if (folder_wd_ < 0) {
    stop();
    return false;
  }
  folder_ = folder;
  // Each folder above, up to the library folder, reports its child on the
  // way down being moved or deleted, and its own move or deletion.
  std::string child = folder;
  while (child != top && child.size() > top.size() && child.rfind(top, 0) == 0) {
    std::string parent = ParentOf(child);
    int wd = inotify_add_watch(fd_, parent.c_str(),
                               IN_MOVED_FROM | IN_DELETE | kSelfEvents | IN_ONLYDIR);
    if (wd >= 0)
      above_.emplace_back(wd, NameOf(child));
    child = parent;
  }
  source_ = g_unix_fd_add(
      fd_, G_IO_IN,
      [](gint, GIOCondition, gpointer data) -> gboolean {
        static_cast<FolderWatch*>(data)->readEvents();
        return G_SOURCE_CONTINUE;
      },
      this);
  g_source_set_name_by_id(source_, "[orvane] library folder events");
  return true;
}

void FolderWatch::stop() {
  if (source_)
    g_source_remove(source_);
  source_ = 0;
  if (fd_ >= 0)
    close(fd_);
  fd_ = -1;
  folder_wd_ = -1;
  above_.clear();
  if (flush_timer_)
    scheduler_.cancel(flush_timer_);
  flush_timer_ = 0;
  batch_.clear();
}

void FolderWatch::readEvents() {
  alignas(struct inotify_event) char buffer[16384];
  while (true) {
    ssize_t length = read(fd_, buffer, sizeof buffer);
    if (length <= 0)
      break;
    handleEvents(buffer, size_t(length));
  }
}

void FolderWatch::handleEvents(const char* bytes, size_t length) {
  bool root_changed = false;
  size_t at = 0;
  // Only whole events are read: a header, and a name within the bytes given.
  while (length - at >= sizeof(struct inotify_event)) {
    auto* event = reinterpret_cast<const struct inotify_event*>(bytes + at);
    if (event->len > length - at - sizeof(struct inotify_event))
      break;
    at += sizeof(struct inotify_event) + event->len;
    std::string name(event->name, strnlen(event->name, event->len));
    if (event->mask & IN_Q_OVERFLOW) {
      queue({folder_, false, true});
      continue;
    }
    if (event->wd == folder_wd_) {
      if (event->mask & kWatchEnded)
        root_changed = true;
      else if (!name.empty() && !(event->mask & IN_ISDIR))
        queue({JoinPath(folder_, name), false});
      continue;
    }
    for (const auto& [wd, child] : above_) {
      if (event->wd != wd)
        continue;
      if ((event->mask & kWatchEnded) || name == child)
        root_changed = true;
    }
  }
  if (root_changed)
    queue({folder_, true});
}

void FolderWatch::queue(FolderEvent event) {
  // One report per path and batch: later writes to the same file within the
  // batch add nothing.
  bool seen = std::any_of(batch_.begin(), batch_.end(), [&](const FolderEvent& e) {
    return e.path == event.path && e.root_changed == event.root_changed &&
           e.events_lost == event.events_lost;
  });
  if (!seen)
    batch_.push_back(std::move(event));
  if (!flush_timer_)
    flush_timer_ = scheduler_.after(kWatchLatency, [this] {
      flush_timer_ = 0;
      flush();
    });
}

void FolderWatch::flush() {
  std::vector<FolderEvent> batch;
  batch.swap(batch_);
  if (!batch.empty())
    callback_(batch);
}

} // namespace orvane
