#include "desktop/wayland/DataControl.h"

#include "base/MainThread.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gdk/gdkwayland.h>
#include <glib-unix.h>
#include <glib.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <thread>
#include <unistd.h>
#include <wayland-client.h>

namespace orvane {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kLoggedNameLength = 60;
constexpr size_t kChunk = 64 * 1024;

std::string LoggedType(const std::string& type) {
  return ShortenedText(ValidUtf8(type), kLoggedNameLength);
}

const char* KindName(SelectionKind kind) {
  return kind == SelectionKind::kClipboard ? "clipboard" : "primary";
}

// An offer of the compositor, destroyed when the last read of it and the
// selection that holds it let go. Used on the connection's thread only.
struct Offer {
  zwlr_data_control_offer_v1* proxy = nullptr;
  void* thread = nullptr; // the DataControl thread whose device announced it
  std::vector<std::string> types;
  size_t ignored = 0; // types left out: too many, or unusable names
  ~Offer() {
    if (proxy)
      zwlr_data_control_offer_v1_destroy(proxy);
  }
};

// The CLIPBOARD we serve. `contents` does not change after creation; `owned`
// turns false on the connection's thread when another client takes the
// CLIPBOARD, or on the calling thread when a newer restore replaces it.
struct Served {
  ClipboardContents contents;
  std::atomic<bool> owned{true};
  zwlr_data_control_source_v1* proxy = nullptr; // connection's thread only
};

// The silence one read or save may still put up with, and its end.
struct Budget {
  milliseconds stall;
  Clock::time_point ceiling;
  Budget(milliseconds stall_budget, milliseconds longest)
      : stall(stall_budget), ceiling(Clock::now() + longest) {}
  bool spent() const { return stall.count() <= 0 || Clock::now() >= ceiling; }
};

enum class ReadEnd { kDone, kSilent, kTooLarge, kFailed };

// A source without file descriptors that fires at its ready time.
GSource* NewTimer(GSourceFunc callback, gpointer data) {
  static GSourceFuncs funcs = {
      nullptr,
      nullptr,
      [](GSource*, GSourceFunc callback, gpointer data) -> gboolean { return callback(data); },
      nullptr,
      nullptr,
      nullptr};
  GSource* source = g_source_new(&funcs, sizeof(GSource));
  g_source_set_callback(source, callback, data, nullptr);
  return source;
}

void SetTimerAt(GSource* timer, Clock::time_point when) {
  auto left = std::chrono::duration_cast<std::chrono::microseconds>(when - Clock::now());
  g_source_set_ready_time(timer, g_get_monotonic_time() + std::max<int64_t>(left.count(), 0));
}

// The connection's thread blocks SIGPIPE: a client that closes the pipe we
// serve into makes write() fail with EPIPE, and the signal it leaves
// pending on this thread is taken here instead of ending the process.
void DropPendingSigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  struct timespec zero = {0, 0};
  while (sigtimedwait(&set, nullptr, &zero) > 0) {
  }
}

} // namespace

bool IsMetaMimeType(const std::string& type) {
  return type == "TARGETS" || type == "MULTIPLE" || type == "TIMESTAMP" || type == "SAVE_TARGETS" ||
         type == "DELETE" || type.rfind("INSERT_", 0) == 0;
}

bool IsUsableMimeType(const std::string& type, size_t max_length) {
  if (type.empty() || type.size() > max_length)
    return false;
  return std::none_of(type.begin(), type.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::vector<std::string> TextMimeTypesOf(const std::vector<std::string>& types) {
  std::vector<std::string> text;
  for (const char* wanted : {"text/plain;charset=utf-8", "UTF8_STRING", "text/plain", "STRING"}) {
    if (std::find(types.begin(), types.end(), wanted) != types.end())
      text.push_back(wanted);
  }
  return text;
}

std::string TextFromMimeBytes(const std::string& type, const std::string& bytes) {
  if (type == "STRING") {
    gsize written = 0;
    gchar* converted = g_convert(bytes.data(), gssize(bytes.size()), "UTF-8", "ISO-8859-1", nullptr,
                                 &written, nullptr);
    if (converted) {
      std::string text(converted, written);
      g_free(converted);
      return text;
    }
  }
  return ValidUtf8(bytes);
}

struct DataControl::Thread : std::enable_shared_from_this<DataControl::Thread> {
  struct Read;
  struct Write;
  using ReadDone = std::function<void(ReadEnd, std::string)>;

  explicit Thread(DataControlLimits limits_in) : limits(std::move(limits_in)) {
    context = g_main_context_new();
    loop = g_main_loop_new(context, FALSE);
  }
  ~Thread() {
    g_main_loop_unref(loop);
    g_main_context_unref(context);
  }

  DataControlLimits limits;
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  std::thread thread;
  std::atomic<bool> stopped{false};
  std::atomic<bool> connected{false};
  std::atomic<uint64_t> clipboard_changes{0};
  std::atomic<uint64_t> primary_changes{0};

  // The restored CLIPBOARD; the calling thread swaps it under the mutex.
  mutable std::mutex served_mutex;
  std::shared_ptr<Served> served;

  // Everything below: the connection's thread only.
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  wl_seat* seat = nullptr;
  zwlr_data_control_manager_v1* manager = nullptr;
  uint32_t manager_version = 0;
  zwlr_data_control_device_v1* device = nullptr;
  GSource* display_source = nullptr;
  std::map<zwlr_data_control_offer_v1*, std::shared_ptr<Offer>> new_offers;
  std::shared_ptr<Offer> clipboard;
  std::shared_ptr<Offer> primary;
  std::set<Read*> reads;
  std::set<Write*> writes;
  std::shared_ptr<Served> serving; // whose source is alive on the connection
  std::atomic<bool> lost{false};
  // The outcome of the one connection attempt once known, and the callers
  // waiting for it meanwhile.
  std::optional<bool> connect_outcome;
  std::vector<std::function<void(bool)>> connect_waiters;

  // Runs `job` on the connection's thread.
  void post(std::function<void()> job) { RunOnContext(context, std::move(job)); }

  // Hands `job` to the connection's thread and waits for its answer, which
  // the job gives through the function it gets, once. The calling thread
  // runs its thread-default main context meanwhile; nothing when the thread
  // stops or `wait` passes first.
  template <typename T>
  static std::optional<T> ask(const std::shared_ptr<Thread>& self,
                              std::function<void(std::function<void(T)>)> job, milliseconds wait) {
    // The answer may come after the caller gave up and left; it keeps its
    // own reference to the caller's context.
    struct Answer {
      std::mutex mutex;
      std::optional<T> value;
      bool done = false;
      GMainContext* caller = nullptr;
      ~Answer() { g_main_context_unref(caller); }
    };
    auto answer = std::make_shared<Answer>();
    answer->caller = g_main_context_ref_thread_default();
    self->post([job = std::move(job), answer] {
      job([answer](T value) {
        {
          std::lock_guard<std::mutex> lock(answer->mutex);
          if (answer->done)
            return;
          answer->value = std::move(value);
          answer->done = true;
        }
        g_main_context_wakeup(answer->caller);
      });
    });
    Clock::time_point deadline = Clock::now() + wait;
    GSource* timer = NewTimer([](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    SetTimerAt(timer, deadline);
    g_source_set_name(timer, "[orvane] data-control answer wait");
    g_source_attach(timer, answer->caller);
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(answer->mutex);
        if (answer->done || self->stopped || Clock::now() >= deadline) {
          answer->done = true; // a late answer is dropped
          break;
        }
      }
      g_main_context_iteration(answer->caller, TRUE);
    }
    g_source_destroy(timer);
    g_source_unref(timer);
    std::lock_guard<std::mutex> lock(answer->mutex);
    return std::move(answer->value);
  }

  void start() {
    std::shared_ptr<Thread> self = shared_from_this();
    thread = std::thread([self] {
      // Named, so that a profiler or a debugger tells who woke up.
      pthread_setname_np(pthread_self(), kThreadName);
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &set, nullptr);
      g_main_context_push_thread_default(self->context);
      g_main_loop_run(self->loop);
      self->teardown();
      g_main_context_pop_thread_default(self->context);
    });
  }

  void stop() {
    stopped = true;
    g_main_loop_quit(loop);
    g_main_context_wakeup(context);
    if (thread.joinable())
      thread.join();
  }

  // ---- the connection ----

  // The one connection attempt; each waiter hears its outcome once.
  void connectOnce() {
    connect([this](bool ok) {
      connect_outcome = ok;
      std::vector<std::function<void(bool)>> waiters = std::move(connect_waiters);
      connect_waiters.clear();
      for (auto& waiter : waiters)
        waiter(ok);
    });
  }

  // Answers at once when the attempt has ended, otherwise when it ends.
  void whenConnected(std::function<void(bool)> reply) {
    if (connect_outcome)
      reply(*connect_outcome);
    else
      connect_waiters.push_back(std::move(reply));
  }

  // Connects and answers once the device has told the current selections.
  void connect(std::function<void(bool)> reply) {
    display = wl_display_connect(nullptr);
    if (!display) {
      SparLog("data-control: no Wayland display to connect to");
      reply(false);
      return;
    }
    registry = wl_display_get_registry(display);
    static const wl_registry_listener registry_listener = {
        [](void* data, wl_registry* registry, uint32_t name, const char* interface,
           uint32_t version) {
          auto* self = static_cast<Thread*>(data);
          if (strcmp(interface, "wl_seat") == 0 && !self->seat) {
            self->seat =
                static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
          } else if (strcmp(interface, zwlr_data_control_manager_v1_interface.name) == 0 &&
                     !self->manager) {
            self->manager_version = std::min<uint32_t>(version, 2);
            self->manager = static_cast<zwlr_data_control_manager_v1*>(wl_registry_bind(
                registry, name, &zwlr_data_control_manager_v1_interface, self->manager_version));
          }
        },
        [](void*, wl_registry*, uint32_t) {}};
    wl_registry_add_listener(registry, &registry_listener, this);
    attachDisplaySource();
    sync([this, reply] {
      if (!manager || !seat) {
        SparLog("data-control: the compositor offers no %@",
                manager ? "seat" : "data-control manager (zwlr_data_control_manager_v1)");
        reply(false);
        return;
      }
      device = zwlr_data_control_manager_v1_get_data_device(manager, seat);
      static const zwlr_data_control_device_v1_listener device_listener = {
          [](void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
            static_cast<Thread*>(data)->newOffer(offer);
          },
          [](void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
            auto* self = static_cast<Thread*>(data);
            self->clipboard = self->takeOffer(offer);
            ++self->clipboard_changes;
          },
          [](void* data, zwlr_data_control_device_v1*) {
            auto* self = static_cast<Thread*>(data);
            SparLog("data-control: the compositor ended the data device");
            zwlr_data_control_device_v1_destroy(self->device);
            self->device = nullptr;
            self->clipboard.reset();
            self->primary.reset();
            self->connected = false;
          },
          [](void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
            auto* self = static_cast<Thread*>(data);
            self->primary = self->takeOffer(offer);
            ++self->primary_changes;
          }};
      zwlr_data_control_device_v1_add_listener(device, &device_listener, this);
      sync([this, reply] {
        connected = device != nullptr;
        reply(connected.load());
      });
    });
  }

  // Calls `done` once the compositor has handled every request sent so far.
  void sync(std::function<void()> done) {
    wl_callback* callback = wl_display_sync(display);
    static const wl_callback_listener listener = {[](void* data, wl_callback* callback, uint32_t) {
      auto* done = static_cast<std::function<void()>*>(data);
      wl_callback_destroy(callback);
      (*done)();
      delete done;
    }};
    wl_callback_add_listener(callback, &listener, new std::function<void()>(std::move(done)));
    wl_display_flush(display);
  }

  // The connection's events as a source of the thread's context (the
  // prepare-read protocol of libwayland, as GDK does it).
  struct DisplaySource {
    GSource base;
    Thread* thread;
    gpointer tag;
    bool reading;
  };

  static gboolean DisplayPrepare(GSource* base, gint* timeout) {
    auto* source = reinterpret_cast<DisplaySource*>(base);
    wl_display* display = source->thread->display;
    *timeout = -1;
    if (source->reading)
      return FALSE;
    if (wl_display_prepare_read(display) != 0)
      return TRUE; // events are queued already
    source->reading = true;
    wl_display_flush(display);
    return FALSE;
  }

  static gboolean DisplayCheck(GSource* base) {
    auto* source = reinterpret_cast<DisplaySource*>(base);
    wl_display* display = source->thread->display;
    GIOCondition revents = g_source_query_unix_fd(base, source->tag);
    if (source->reading) {
      if (revents & G_IO_IN)
        wl_display_read_events(display);
      else
        wl_display_cancel_read(display);
      source->reading = false;
    }
    return (revents & (G_IO_IN | G_IO_HUP | G_IO_ERR)) != 0 || wl_display_get_error(display) != 0;
  }

  static gboolean DisplayDispatch(GSource* base, GSourceFunc, gpointer) {
    auto* source = reinterpret_cast<DisplaySource*>(base);
    Thread* thread = source->thread;
    GIOCondition revents = g_source_query_unix_fd(base, source->tag);
    // A hung-up socket with nothing left to read would wake the loop forever.
    bool hung_up = (revents & (G_IO_HUP | G_IO_ERR)) && !(revents & G_IO_IN);
    if (hung_up || wl_display_dispatch_pending(thread->display) < 0 ||
        wl_display_get_error(thread->display) != 0) {
      thread->connectionLost();
      return G_SOURCE_REMOVE;
    }
    wl_display_flush(thread->display);
    return G_SOURCE_CONTINUE;
  }

  static void DisplayFinalize(GSource* base) {
    auto* source = reinterpret_cast<DisplaySource*>(base);
    if (source->reading)
      wl_display_cancel_read(source->thread->display);
    source->reading = false;
  }

  void attachDisplaySource() {
    static GSourceFuncs funcs = {DisplayPrepare,  DisplayCheck, DisplayDispatch,
                                 DisplayFinalize, nullptr,      nullptr};
    GSource* base = g_source_new(&funcs, sizeof(DisplaySource));
    auto* source = reinterpret_cast<DisplaySource*>(base);
    source->thread = this;
    source->reading = false;
    source->tag = g_source_add_unix_fd(base, wl_display_get_fd(display),
                                       GIOCondition(G_IO_IN | G_IO_ERR | G_IO_HUP));
    g_source_set_name(base, "[orvane] data-control display");
    g_source_attach(base, context);
    display_source = base;
  }

  void connectionLost() {
    if (!lost)
      SparLog("data-control: the Wayland connection broke (error %d)",
              display ? wl_display_get_error(display) : -1);
    lost = true;
    connected = false;
    std::lock_guard<std::mutex> lock(served_mutex);
    if (served)
      served->owned = false;
  }

  // Flushes what was asked; a broken connection is noticed here too.
  void flush() {
    if (display && wl_display_flush(display) < 0 && errno != EAGAIN)
      connectionLost();
  }

  void newOffer(zwlr_data_control_offer_v1* proxy) {
    auto offer = std::make_shared<Offer>();
    offer->proxy = proxy;
    offer->thread = this;
    // The offer's events come only while its proxy lives, which the Offer
    // destroys with itself.
    zwlr_data_control_offer_v1_add_listener(proxy, &offer_listener, offer.get());
    new_offers[proxy] = std::move(offer);
  }

  static const zwlr_data_control_offer_v1_listener offer_listener;

  void offerType(Offer* offer, const char* mime_type) {
    std::string type = mime_type ? mime_type : "";
    if (offer->types.size() >= limits.max_types ||
        !IsUsableMimeType(type, limits.max_type_length) ||
        std::find(offer->types.begin(), offer->types.end(), type) != offer->types.end()) {
      ++offer->ignored;
      return;
    }
    offer->types.push_back(std::move(type));
  }

  std::shared_ptr<Offer> takeOffer(zwlr_data_control_offer_v1* proxy) {
    if (!proxy)
      return nullptr;
    auto found = new_offers.find(proxy);
    if (found == new_offers.end())
      return nullptr;
    std::shared_ptr<Offer> offer = std::move(found->second);
    new_offers.erase(found);
    if (offer->ignored > 0)
      SparLog("data-control: an offer listed %lu MIME types we ignore (too many, or bad names)",
              offer->ignored);
    return offer;
  }

  std::shared_ptr<Offer> offerOf(SelectionKind kind) const {
    return kind == SelectionKind::kClipboard ? clipboard : primary;
  }

  // ---- reading an offer ----

  struct Read {
    Thread* thread;
    std::shared_ptr<Offer> offer;
    std::shared_ptr<Budget> budget;
    std::string type;
    std::string bytes;
    size_t limit = 0;
    int fd = -1;
    Clock::time_point last_progress;
    GSource* watch = nullptr;
    GSource* timer = nullptr;
    ReadDone done;
  };

  // Reads the offer's bytes for one type, at most `limit`, within the budget.
  void read(std::shared_ptr<Offer> offer, const std::string& type, size_t limit,
            std::shared_ptr<Budget> budget, ReadDone done) {
    if (!offer || !offer->proxy || lost) {
      done(ReadEnd::kFailed, {});
      return;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      SparLog("data-control: no pipe to read the selection (%s)", strerror(errno));
      done(ReadEnd::kFailed, {});
      return;
    }
    // Only our end waits without blocking: the owner gets an ordinary pipe
    // (a non-blocking one makes simple owners give up at the first full pipe).
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    zwlr_data_control_offer_v1_receive(offer->proxy, type.c_str(), fds[1]);
    flush();
    close(fds[1]);
    auto* read = new Read{this,           std::move(offer), std::move(budget), type,    {},
                          limit,          fds[0],           Clock::now(),      nullptr, nullptr,
                          std::move(done)};
    reads.insert(read);
    read->watch = g_unix_fd_source_new(read->fd, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR));
    g_source_set_callback(read->watch, G_SOURCE_FUNC(+[](int, GIOCondition, gpointer data) {
                            auto* read = static_cast<Read*>(data);
                            return read->thread->readMore(read);
                          }),
                          read, nullptr);
    g_source_set_name(read->watch, "[orvane] data-control read");
    g_source_attach(read->watch, context);
    read->timer = NewTimer(
        [](gpointer data) -> gboolean {
          auto* read = static_cast<Read*>(data);
          Clock::time_point now = Clock::now();
          read->budget->stall -=
              std::chrono::duration_cast<milliseconds>(now - read->last_progress);
          read->thread->endRead(read, ReadEnd::kSilent);
          return G_SOURCE_REMOVE;
        },
        read);
    armReadTimer(read);
    g_source_set_name(read->timer, "[orvane] data-control read deadline");
    g_source_attach(read->timer, context);
  }

  void armReadTimer(Read* read) {
    Clock::time_point now = Clock::now();
    Clock::time_point when =
        std::min({now + limits.idle_wait, now + std::max(read->budget->stall, milliseconds(0)),
                  read->budget->ceiling});
    SetTimerAt(read->timer, when);
  }

  gboolean readMore(Read* read) {
    char chunk[kChunk];
    for (;;) {
      ssize_t got = ::read(read->fd, chunk, sizeof chunk);
      if (got > 0) {
        if (read->bytes.size() + size_t(got) > read->limit) {
          endRead(read, ReadEnd::kTooLarge);
          return G_SOURCE_REMOVE;
        }
        read->bytes.append(chunk, size_t(got));
        read->last_progress = Clock::now();
        if (read->last_progress >= read->budget->ceiling) {
          endRead(read, ReadEnd::kSilent);
          return G_SOURCE_REMOVE;
        }
        continue;
      }
      if (got == 0) {
        endRead(read, ReadEnd::kDone);
        return G_SOURCE_REMOVE;
      }
      if (errno == EINTR)
        continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        armReadTimer(read);
        return G_SOURCE_CONTINUE;
      }
      endRead(read, ReadEnd::kFailed);
      return G_SOURCE_REMOVE;
    }
  }

  // Ends the read (its sources go; the one that called may still be
  // running and returns REMOVE) and answers.
  void endRead(Read* read, ReadEnd end) {
    reads.erase(read);
    g_source_destroy(read->watch);
    g_source_unref(read->watch);
    g_source_destroy(read->timer);
    g_source_unref(read->timer);
    close(read->fd);
    ReadDone done = std::move(read->done);
    std::string bytes = end == ReadEnd::kDone ? std::move(read->bytes) : std::string();
    delete read;
    if (done)
      done(end, std::move(bytes));
  }

  void readText(SelectionKind kind, std::function<void(std::optional<std::string>)> reply) {
    std::shared_ptr<Offer> offer = offerOf(kind);
    if (!offer) {
      reply(std::nullopt);
      return;
    }
    auto budget = std::make_shared<Budget>(limits.stall_budget, limits.ceiling);
    auto types = std::make_shared<std::vector<std::string>>(TextMimeTypesOf(offer->types));
    readTextFrom(offer, types, 0, budget, std::move(reply), kind);
  }

  void readTextFrom(std::shared_ptr<Offer> offer, std::shared_ptr<std::vector<std::string>> types,
                    size_t index, std::shared_ptr<Budget> budget,
                    std::function<void(std::optional<std::string>)> reply, SelectionKind kind) {
    if (index >= types->size() || budget->spent()) {
      if (!types->empty() && index < types->size())
        SparLog("data-control: the %@ owner gave no text in time", KindName(kind));
      reply(std::nullopt);
      return;
    }
    std::string type = (*types)[index];
    read(offer, type, limits.max_bytes, budget,
         [this, offer, types, index, budget, reply, kind, type](ReadEnd end, std::string bytes) {
           if (end == ReadEnd::kDone) {
             reply(TextFromMimeBytes(type, bytes));
             return;
           }
           if (end == ReadEnd::kTooLarge)
             SparLog("data-control: the %@ text is larger than %lu bytes, not read", KindName(kind),
                     limits.max_bytes);
           readTextFrom(offer, types, index + 1, budget, reply, kind);
         });
  }

  struct Save {
    std::shared_ptr<Offer> offer;
    std::shared_ptr<Budget> budget;
    std::vector<std::string> types;
    size_t index = 0;
    size_t room = 0;
    SavedSelection saved;
    std::function<void(SavedSelection)> reply;
  };

  void saveClipboard(std::function<void(SavedSelection)> reply) {
    auto save = std::make_shared<Save>();
    save->offer = clipboard;
    save->reply = std::move(reply);
    if (!save->offer) {
      save->reply({});
      return;
    }
    save->budget = std::make_shared<Budget>(limits.stall_budget, limits.ceiling);
    save->room = limits.max_bytes;
    for (const std::string& type : save->offer->types) {
      if (!IsMetaMimeType(type))
        save->types.push_back(type);
    }
    save->saved.offered = save->types.size();
    saveNext(save);
  }

  void saveNext(const std::shared_ptr<Save>& save) {
    if (save->index >= save->types.size()) {
      save->reply(std::move(save->saved));
      return;
    }
    if (save->budget->spent()) {
      save->saved.cut_short = true;
      save->reply(std::move(save->saved));
      return;
    }
    std::string type = save->types[save->index++];
    read(save->offer, type, save->room, save->budget,
         [this, save, type](ReadEnd end, std::string bytes) {
           if (end == ReadEnd::kDone) {
             save->room -= bytes.size();
             save->saved.types.push_back({type, std::move(bytes)});
           } else if (end == ReadEnd::kTooLarge) {
             save->saved.too_large = true;
             SparLog("data-control: the clipboard's %@ does not fit in %lu bytes, not saved",
                     LoggedType(type), limits.max_bytes);
           } else if (end == ReadEnd::kSilent) {
             SparLog("data-control: the clipboard's owner stopped answering for %@",
                     LoggedType(type));
           }
           saveNext(save);
         });
  }

  // ---- serving the restored CLIPBOARD ----

  struct Write {
    Thread* thread;
    std::shared_ptr<Served> served;
    const std::string* bytes;
    size_t offset = 0;
    int fd = -1;
    GSource* watch = nullptr;
    GSource* timer = nullptr;
  };

  static const zwlr_data_control_source_v1_listener source_listener;

  void setClipboard(std::shared_ptr<Served> next, std::function<void(bool)> reply) {
    if (!device || lost) {
      reply(false);
      return;
    }
    if (serving && serving->proxy) {
      // The compositor cancels it when the new one takes over; what it is
      // still writing goes on.
      zwlr_data_control_source_v1_destroy(serving->proxy);
      serving->proxy = nullptr;
    }
    serving.reset();
    if (!next) {
      zwlr_data_control_device_v1_set_selection(device, nullptr);
      flush();
      reply(!lost);
      return;
    }
    next->proxy = zwlr_data_control_manager_v1_create_data_source(manager);
    zwlr_data_control_source_v1_add_listener(next->proxy, &source_listener, this);
    for (const SelectionTarget& item : next->contents)
      zwlr_data_control_source_v1_offer(next->proxy, item.target.c_str());
    zwlr_data_control_device_v1_set_selection(device, next->proxy);
    serving = std::move(next);
    flush();
    reply(!lost);
  }

  void sourceCancelled(zwlr_data_control_source_v1* proxy) {
    if (serving && serving->proxy == proxy) {
      serving->owned = false;
      serving->proxy = nullptr;
      serving.reset();
    }
    zwlr_data_control_source_v1_destroy(proxy);
  }

  void sourceSend(zwlr_data_control_source_v1* proxy, const char* mime_type, int fd) {
    if (!serving || serving->proxy != proxy) {
      close(fd);
      return;
    }
    std::string type = mime_type ? mime_type : "";
    const SelectionTarget* item = nullptr;
    for (const SelectionTarget& candidate : serving->contents) {
      if (candidate.target == type) {
        item = &candidate;
        break;
      }
    }
    if (!item) {
      SparLog("data-control: a client asked for %@, which the clipboard does not offer",
              LoggedType(type));
      close(fd);
      return;
    }
    if (writes.size() >= limits.max_serving) {
      SparLog("data-control: %lu clients are being served already, one more is refused",
              writes.size());
      close(fd);
      return;
    }
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    auto* write = new Write{this, serving, &item->bytes, 0, fd, nullptr, nullptr};
    writes.insert(write);
    write->watch = g_unix_fd_source_new(fd, GIOCondition(G_IO_OUT | G_IO_HUP | G_IO_ERR));
    g_source_set_callback(write->watch, G_SOURCE_FUNC(+[](int, GIOCondition, gpointer data) {
                            auto* write = static_cast<Write*>(data);
                            return write->thread->writeMore(write);
                          }),
                          write, nullptr);
    g_source_set_name(write->watch, "[orvane] data-control write");
    g_source_attach(write->watch, context);
    write->timer = NewTimer(
        [](gpointer data) -> gboolean {
          auto* write = static_cast<Write*>(data);
          SparLog("data-control: a client stopped reading the clipboard, %lu of %lu bytes given",
                  write->offset, write->bytes->size());
          write->thread->endWrite(write);
          return G_SOURCE_REMOVE;
        },
        write);
    SetTimerAt(write->timer, Clock::now() + limits.serve_idle_wait);
    g_source_set_name(write->timer, "[orvane] data-control write deadline");
    g_source_attach(write->timer, context);
  }

  gboolean writeMore(Write* write) {
    while (write->offset < write->bytes->size()) {
      size_t length = std::min(kChunk, write->bytes->size() - write->offset);
      ssize_t wrote = ::write(write->fd, write->bytes->data() + write->offset, length);
      if (wrote > 0) {
        write->offset += size_t(wrote);
        SetTimerAt(write->timer, Clock::now() + limits.serve_idle_wait);
        continue;
      }
      if (wrote < 0 && errno == EINTR)
        continue;
      if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return G_SOURCE_CONTINUE;
      if (wrote < 0 && errno == EPIPE)
        DropPendingSigpipe();
      break; // the reader went away
    }
    endWrite(write);
    return G_SOURCE_REMOVE;
  }

  void endWrite(Write* write) {
    writes.erase(write);
    g_source_destroy(write->watch);
    g_source_unref(write->watch);
    g_source_destroy(write->timer);
    g_source_unref(write->timer);
    close(write->fd);
    delete write;
  }

  // ---- the end ----

  void teardown() {
    for (Read* read : std::set<Read*>(reads))
      endRead(read, ReadEnd::kFailed);
    for (Write* write : std::set<Write*>(writes))
      endWrite(write);
    clipboard.reset();
    primary.reset();
    new_offers.clear();
    if (serving && serving->proxy)
      zwlr_data_control_source_v1_destroy(serving->proxy);
    if (serving)
      serving->owned = false;
    serving.reset();
    if (display_source) {
      g_source_destroy(display_source);
      g_source_unref(display_source);
      display_source = nullptr;
    }
    if (device)
      zwlr_data_control_device_v1_destroy(device);
    if (manager)
      zwlr_data_control_manager_v1_destroy(manager);
    if (seat)
      wl_seat_destroy(seat);
    if (registry)
      wl_registry_destroy(registry);
    if (display) {
      wl_display_flush(display);
      wl_display_disconnect(display);
    }
    display = nullptr;
    connected = false;
  }
};

const zwlr_data_control_offer_v1_listener DataControl::Thread::offer_listener = {
    [](void* data, zwlr_data_control_offer_v1*, const char* mime_type) {
      auto* offer = static_cast<Offer*>(data);
      static_cast<Thread*>(offer->thread)->offerType(offer, mime_type);
    }};

const zwlr_data_control_source_v1_listener DataControl::Thread::source_listener = {
    [](void* data, zwlr_data_control_source_v1* source, const char* mime_type, int32_t fd) {
      static_cast<Thread*>(data)->sourceSend(source, mime_type, fd);
    },
    [](void* data, zwlr_data_control_source_v1* source) {
      static_cast<Thread*>(data)->sourceCancelled(source);
    }};

DataControl::DataControl(DataControlLimits limits)
    : thread_(std::make_shared<Thread>(limits)), limits_(std::move(limits)) {}

DataControl::~DataControl() {
  thread_->stop();
}

bool DataControl::connected() const {
  return thread_->connected && !thread_->lost;
}

uint64_t DataControl::clipboardChanges() const {
  return thread_->clipboard_changes;
}

uint64_t DataControl::primaryChanges() const {
  return thread_->primary_changes;
}

void DataControl::startConnecting() {
  if (connect_started_)
    return;
  connect_started_ = true;
  thread_->start();
  std::shared_ptr<Thread> thread = thread_;
  thread->post([thread] { thread->connectOnce(); });
}

bool DataControl::connect() {
  if (connect_tried_)
    return connected();
  connect_tried_ = true;
  // The thread and its connection start with the first use, or earlier
  // through startConnecting(): a program that never reads a selection has
  // neither. A connection already under way is waited for, not made again.
  startConnecting();
  std::shared_ptr<Thread> thread = thread_;
  std::optional<bool> ok = Thread::ask<bool>(
      thread,
      [thread](std::function<void(bool)> reply) { thread->whenConnected(std::move(reply)); },
      limits_.connect_wait);
  if (!ok)
    SparLog("data-control: the compositor did not answer within %lld ms",
            (long long)limits_.connect_wait.count());
  return ok.value_or(false);
}

std::optional<std::vector<std::string>> DataControl::mimeTypes(SelectionKind kind) {
  if (!connect())
    return std::nullopt;
  std::shared_ptr<Thread> thread = thread_;
  std::optional<std::optional<std::vector<std::string>>> types =
      Thread::ask<std::optional<std::vector<std::string>>>(
          thread,
          [thread, kind](std::function<void(std::optional<std::vector<std::string>>)> reply) {
            std::shared_ptr<Offer> offer = thread->offerOf(kind);
            reply(offer ? std::optional(offer->types) : std::nullopt);
          },
          limits_.connect_wait);
  return types ? *types : std::nullopt;
}

std::optional<std::string> DataControl::read(SelectionKind kind, const std::string& type) {
  if (!connect())
    return std::nullopt;
  std::shared_ptr<Thread> thread = thread_;
  size_t limit = limits_.max_bytes;
  auto answer = Thread::ask<std::optional<std::string>>(
      thread,
      [thread, kind, type, limit](std::function<void(std::optional<std::string>)> reply) {
        std::shared_ptr<Offer> offer = thread->offerOf(kind);
        if (!offer ||
            std::find(offer->types.begin(), offer->types.end(), type) == offer->types.end()) {
          reply(std::nullopt);
          return;
        }
        auto budget = std::make_shared<Budget>(thread->limits.stall_budget, thread->limits.ceiling);
        thread->read(offer, type, limit, budget, [reply](ReadEnd end, std::string bytes) {
          reply(end == ReadEnd::kDone ? std::optional(std::move(bytes)) : std::nullopt);
        });
      },
      limits_.ceiling + limits_.connect_wait);
  return answer ? *answer : std::nullopt;
}

std::optional<std::string> DataControl::readText(SelectionKind kind) {
  if (!connect())
    return std::nullopt;
  std::shared_ptr<Thread> thread = thread_;
  auto answer = Thread::ask<std::optional<std::string>>(
      thread,
      [thread, kind](std::function<void(std::optional<std::string>)> reply) {
        thread->readText(kind, std::move(reply));
      },
      limits_.ceiling + limits_.connect_wait);
  return answer ? *answer : std::nullopt;
}

SavedSelection DataControl::saveClipboard() {
  {
    std::lock_guard<std::mutex> lock(thread_->served_mutex);
    if (thread_->served && thread_->served->owned) {
      SavedSelection saved;
      saved.types = thread_->served->contents;
      saved.offered = saved.types.size();
      return saved;
    }
  }
  if (!connect())
    return {};
  std::shared_ptr<Thread> thread = thread_;
  auto answer = Thread::ask<SavedSelection>(
      thread,
      [thread](std::function<void(SavedSelection)> reply) {
        thread->saveClipboard(std::move(reply));
      },
      limits_.ceiling + limits_.connect_wait);
  return answer.value_or(SavedSelection{});
}

bool DataControl::setClipboard(const ClipboardContents& contents) {
  if (!connect())
    return false;
  std::shared_ptr<Served> next;
  if (!contents.empty()) {
    next = std::make_shared<Served>();
    for (const SelectionTarget& item : contents) {
      bool duplicate =
          std::any_of(next->contents.begin(), next->contents.end(),
                      [&](const SelectionTarget& s) { return s.target == item.target; });
      if (duplicate || !IsUsableMimeType(item.target, limits_.max_type_length) ||
          IsMetaMimeType(item.target) || next->contents.size() >= limits_.max_types)
        continue;
      next->contents.push_back(item);
    }
    if (next->contents.empty())
      next.reset();
  }
  {
    std::lock_guard<std::mutex> lock(thread_->served_mutex);
    if (thread_->served)
      thread_->served->owned = false;
    thread_->served = next;
  }
  std::shared_ptr<Thread> thread = thread_;
  auto answer = Thread::ask<bool>(
      thread,
      [thread, next](std::function<void(bool)> reply) { thread->setClipboard(next, reply); },
      limits_.connect_wait);
  return answer.value_or(false);
}

bool DataControl::ownsClipboard() const {
  std::lock_guard<std::mutex> lock(thread_->served_mutex);
  return thread_->served && thread_->served->owned;
}

ClipboardContents DataControl::servedClipboard() const {
  std::lock_guard<std::mutex> lock(thread_->served_mutex);
  if (thread_->served && thread_->served->owned)
    return thread_->served->contents;
  return {};
}

namespace {

// The Wayland connection GDK made for this process's windows, when GDK
// runs on Wayland (main thread only).
wl_display* GdkWaylandConnection() {
  GdkDisplay* display = gdk_display_get_default();
  if (!display || !GDK_IS_WAYLAND_DISPLAY(display))
    return nullptr;
  return gdk_wayland_display_get_wl_display(display);
}

// Whether the globals of `display` include the data-control manager: a
// registry and a sync on a queue of their own, so that nothing of the
// connection's other users is dispatched here; bounded by `limit`.
bool ListsDataControlManager(wl_display* display, milliseconds limit) {
  struct Listing {
    bool found = false;
    bool done = false;
  } listing;
  wl_event_queue* queue = wl_display_create_queue(display);
  auto* wrapper = static_cast<wl_display*>(wl_proxy_create_wrapper(display));
  wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(wrapper), queue);
  wl_registry* registry = wl_display_get_registry(wrapper);
  static const wl_registry_listener listener = {
      [](void* data, wl_registry*, uint32_t, const char* interface, uint32_t) {
        if (interface && std::strcmp(interface, zwlr_data_control_manager_v1_interface.name) == 0)
          static_cast<Listing*>(data)->found = true;
      },
      [](void*, wl_registry*, uint32_t) {}};
  wl_registry_add_listener(registry, &listener, &listing);
  // The globals are all announced before the answer to a sync that follows
  // the registry request.
  wl_callback* sync = wl_display_sync(wrapper);
  static const wl_callback_listener done_listener = {
      [](void* data, wl_callback*, uint32_t) { static_cast<Listing*>(data)->done = true; }};
  wl_callback_add_listener(sync, &done_listener, &listing);
  Clock::time_point deadline = Clock::now() + limit;
  while (!listing.done) {
    while (wl_display_prepare_read_queue(display, queue) != 0)
      wl_display_dispatch_queue_pending(display, queue);
    if (listing.done) {
      wl_display_cancel_read(display);
      break;
    }
    wl_display_flush(display);
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    pollfd fd{wl_display_get_fd(display), POLLIN, 0};
    if (left <= 0 || poll(&fd, 1, int(left)) <= 0) {
      wl_display_cancel_read(display);
      break;
    }
    if (wl_display_read_events(display) != 0)
      break;
    wl_display_dispatch_queue_pending(display, queue);
  }
  wl_callback_destroy(sync);
  wl_registry_destroy(registry);
  wl_proxy_wrapper_destroy(wrapper);
  wl_event_queue_destroy(queue);
  return listing.found;
}

} // namespace

bool DataControlOffered(milliseconds limit) {
  static std::atomic<bool> offered{false};
  if (offered)
    return true;
  // GDK's connection when there is one: a compositor may take long over a
  // new connection (KWin checksums the client's executable, most of a
  // second for a large one), and this check runs while the launch waits.
  bool found = false;
  if (wl_display* shared = GdkWaylandConnection()) {
    found = ListsDataControlManager(shared, limit);
  } else {
    wl_display* display = wl_display_connect(nullptr);
    if (!display)
      return false;
    found = ListsDataControlManager(display, limit);
    wl_display_disconnect(display);
  }
  if (found)
    offered = true;
  return found;
}

} // namespace orvane
