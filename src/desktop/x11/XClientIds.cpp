#include "desktop/x11/XClientIds.h"

// Xlibint.h for the close hook of a connection (XESetCloseDisplay); it
// defines min and max as macros, so it stays out of other files.
#include <X11/Xlibint.h>
#include <X11/extensions/XRes.h>
#include <map>
#include <mutex>

namespace orvane {

namespace {

// The XRes answer of every open connection that asked. A hook on the
// connection's close forgets it, so a later connection that Xlib happens to
// give the same address asks anew.
class ClientIdSupport {
public:
  static bool Get(Display* display) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto found = known_.find(display);
      if (found != known_.end())
        return found->second;
    }
    int event_base = 0, error_base = 0, major = 0, minor = 0;
    bool supported = XResQueryExtension(display, &event_base, &error_base) &&
                     XResQueryVersion(display, &major, &minor) &&
                     (major > 1 || (major == 1 && minor >= 2));
    // Without the hook the answer is not kept: the next call asks again.
    if (XExtCodes* codes = XAddExtension(display)) {
      XESetCloseDisplay(display, codes->extension, &ClientIdSupport::Forget);
      std::lock_guard<std::mutex> lock(mutex_);
      known_[display] = supported;
    }
    return supported;
  }

private:
  static int Forget(Display* display, XExtCodes*) {
    std::lock_guard<std::mutex> lock(mutex_);
    known_.erase(display);
    return 0;
  }

  static inline std::mutex mutex_;
  static inline std::map<Display*, bool> known_;
};

} // namespace

bool ClientIdsSupported(Display* display) {
  return ClientIdSupport::Get(display);
}

std::optional<int> PidOfWindowClient(Display* display, unsigned long window) {
  if (window == 0 || !ClientIdsSupported(display))
    return std::nullopt;
  XResClientIdSpec wanted{window, XRES_CLIENT_ID_PID_MASK};
  long count = 0;
  XResClientIdValue* ids = nullptr;
  std::optional<int> pid;
  if (XResQueryClientIds(display, 1, &wanted, &count, &ids) == Success) {
    for (long i = 0; i < count; ++i) {
      if (XResGetClientIdType(&ids[i]) == XRES_CLIENT_ID_PID) {
        pid_t found = XResGetClientPid(&ids[i]);
        if (found > 0)
          pid = int(found);
      }
    }
    XResClientIdsDestroy(count, ids);
  }
  return pid;
}

} // namespace orvane
