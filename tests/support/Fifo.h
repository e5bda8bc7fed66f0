// Named pipes planted where the library expects files. Opening a FIFO for
// reading blocks until someone opens it for writing, so code that opens one
// the ordinary way hangs; these helpers let such a test fail instead.
#pragma once

#include <chrono>
#include <fcntl.h>
#include <functional>
#include <future>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orvane {

inline bool MakeFifo(const std::string& path) {
  return mkfifo(path.c_str(), 0644) == 0;
}

// Runs `work` on a thread of its own. True when it returns by itself; when
// it is still running after a generous while it is taken to be stuck
// opening one of the FIFOs, which are then opened for writing (and closed
// again) until it lets go, and the answer is false.
inline bool ReturnsDespiteFifos(const std::vector<std::string>& fifos, std::function<void()> work,
                                std::chrono::seconds patience = std::chrono::seconds(15)) {
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  std::thread runner([&] {
    work();
    done.set_value();
  });
  bool returned = finished.wait_for(patience) == std::future_status::ready;
  while (finished.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    for (const std::string& fifo : fifos) {
      int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (writer >= 0)
        close(writer);
    }
  }
  runner.join();
  return returned;
}

} // namespace orvane
