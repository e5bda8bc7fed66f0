// Hands work from a background thread back to the main loop, where all of
// the program's state lives.
#pragma once

#include <functional>

namespace orvane {

// Queues the task on the default main context; it runs on the main loop's
// thread, after the tasks queued before it.
void RunOnMainLoop(std::function<void()> task);

} // namespace orvane
