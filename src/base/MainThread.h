// Hands work from a background thread back to the main loop, where all of
// the program's state lives.
#pragma once

#include <chrono>
#include <functional>

typedef struct _GMainContext GMainContext;

namespace orvane {

// Queues the task on the default main context; it runs on the main loop's
// thread, after the tasks queued before it.
void RunOnMainLoop(std::function<void()> task);

// Queues the task on `context`; it runs on the thread that iterates that
// context, after the tasks queued there before it.
void RunOnContext(GMainContext* context, std::function<void()> task);

// Lets the time pass while the calling thread's thread-default main context
// runs, so that its sources (other clients' requests among them) are served.
void RunMainContextFor(std::chrono::milliseconds duration);

} // namespace orvane
