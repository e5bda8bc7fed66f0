#include "desktop/x11/SelectionWorker.h"

#include <glib.h>

namespace orvane {

// One job and where its end is told. `done` is read and written only on the
// thread that iterates `context` (the idle source runs there).
struct SelectionWorker::Pending {
  ~Pending() {
    if (context)
      g_main_context_unref(context);
  }
  Job job;
  GMainContext* context = nullptr;
  bool done = false;
};

namespace {

// Tells the waiting thread that the job has ended: an idle source attached
// to its context runs on the thread that iterates that context, never here.
// (g_main_context_invoke would run the callback on this thread whenever the
// waiting thread is between two iterations.)
void PostDone(const std::shared_ptr<void>& keep, bool* done, GMainContext* context) {
  struct Done {
    std::shared_ptr<void> keep;
    bool* done;
  };
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        *static_cast<Done*>(data)->done = true;
        return G_SOURCE_REMOVE;
      },
      new Done{keep, done}, [](gpointer data) { delete static_cast<Done*>(data); });
  g_source_set_name(source, "[orvane] selection worker done");
  g_source_attach(source, context);
  g_source_unref(source);
}

} // namespace

SelectionWorker::~SelectionWorker() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  cancelled_ = true;
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void SelectionWorker::run(Job job) {
  wait(post(std::move(job)));
}

SelectionWorker::Ticket SelectionWorker::post(Job job) {
  auto pending = std::make_shared<Pending>();
  pending->job = std::move(job);
  pending->context = g_main_context_ref_thread_default();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      pending->done = true;
      return pending;
    }
    if (!thread_.joinable()) {
      XSelectionReader::InstallErrorHandler();
      thread_ = std::thread([this] { loop(); });
    }
    queue_.push_back(pending);
  }
  wake_.notify_one();
  return pending;
}

void SelectionWorker::wait(const Ticket& pending) {
  while (!pending->done)
    g_main_context_iteration(pending->context, TRUE);
}

void SelectionWorker::loop() {
  // Opened here, used only here: Xlib needs no locking for it.
  std::unique_ptr<XSelectionReader> reader;
  for (;;) {
    std::shared_ptr<Pending> pending;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty())
        return;
      pending = queue_.front();
      queue_.pop_front();
    }
    // A worker shutting down still answers every waiting caller, but runs
    // nothing more for them.
    if (!cancelled_) {
      if (!reader)
        reader = std::make_unique<XSelectionReader>(false, &cancelled_);
      pending->job(*reader);
    }
    PostDone(pending, &pending->done, pending->context);
    // After the answer is on its way: what the job's conversions left.
    if (reader)
      reader->tidy();
  }
}

} // namespace orvane
