// A bounded wait for a D-Bus answer that runs none of the main loop's other
// sources. While a PrivateWait lives, a context of its own is the thread's
// default one, so GDBus delivers the signals subscribed and the method calls
// of objects registered meanwhile to it alone; `until` iterates only that
// context. Main thread only; the waits nest no callbacks of the program.
#pragma once

#include "base/GObjectPtr.h"

#include <functional>

namespace orvane {

class PrivateWait {
public:
  PrivateWait();
  ~PrivateWait();
  PrivateWait(const PrivateWait&) = delete;
  PrivateWait& operator=(const PrivateWait&) = delete;

  // Iterates the private context until `done` holds or `seconds` have
  // passed; answers whether `done` holds.
  bool until(const std::function<bool()>& done, double seconds);
  // Dispatches what is ready on the private context now, without waiting
  // (at most a bounded number of dispatches).
  void drain();
  GMainContext* context() const { return context_.get(); }

private:
  GMainContextPtr context_;
};

} // namespace orvane
