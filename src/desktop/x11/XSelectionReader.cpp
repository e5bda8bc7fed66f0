#include "desktop/x11/XSelectionReader.h"

#include <X11/Xatom.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xfixes.h>
#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <poll.h>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>

namespace orvane {

namespace {

// Xlib has one error handler for the whole process, and readers run on more
// than one thread. Ours is installed once and stays: it keeps, for every
// display a reader opened, the chain of traps active on it, and records an
// error in the innermost of them. An error on one of our displays with no
// trap active is counted and otherwise ignored. Errors of other displays go
// on to the handler that was there before ours (GDK's, in the application),
// but only on the main thread: GDK is not thread-safe, and no other thread
// of ours talks to its displays.
class ErrorRouter {
public:
  static void Install() {
    static std::once_flag once;
    std::call_once(once, [] { previous_.store(XSetErrorHandler(&ErrorRouter::Handle)); });
  }
  static void Add(Display* display) {
    Install();
    std::lock_guard<std::mutex> lock(mutex_);
    displays_[display] = Entry{};
  }
  static void Remove(Display* display) {
    std::lock_guard<std::mutex> lock(mutex_);
    displays_.erase(display);
  }
  // Makes `code` the trap that catches the display's errors; returns the
  // one it hides.
  static std::atomic<int>* Push(Display* display, std::atomic<int>* code) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = displays_.find(display);
    if (found == displays_.end())
      return nullptr;
    std::atomic<int>* outer = found->second.trap;
    found->second.trap = code;
    return outer;
  }
  static void Pop(Display* display, std::atomic<int>* outer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = displays_.find(display);
    if (found != displays_.end())
      found->second.trap = outer;
  }
  static uint64_t Untrapped(Display* display) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = displays_.find(display);
    return found == displays_.end() ? 0 : found->second.untrapped;
  }

private:
  struct Entry {
    std::atomic<int>* trap = nullptr;
    uint64_t untrapped = 0;
  };

  // Xlib calls the handler on the thread that read the error, with the
  // display unlocked; it must make no request of its own.
  static int Handle(Display* display, XErrorEvent* error) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto found = displays_.find(display);
      if (found != displays_.end()) {
        if (found->second.trap)
          found->second.trap->store(error->error_code);
        else
          ++found->second.untrapped;
        return 0;
      }
    }
    // The main thread's id is the process's.
    bool main_thread = syscall(SYS_gettid) == getpid();
    XErrorHandler previous = previous_.load();
    if (main_thread && previous)
      return previous(display, error);
    return 0;
  }

  static inline std::mutex mutex_;
  static inline std::map<Display*, Entry> displays_;
  static inline std::atomic<XErrorHandler> previous_{nullptr};
};

// Catches the X errors of one of our displays while it lives (a window that
// vanished between two requests, a hostile atom). Traps of one display nest.
class ErrorTrap {
public:
  explicit ErrorTrap(Display* display)
      : display_(display), outer_(ErrorRouter::Push(display, &code_)) {}
  ~ErrorTrap() {
    settle();
    ErrorRouter::Pop(display_, outer_);
  }
  ErrorTrap(const ErrorTrap&) = delete;
  ErrorTrap& operator=(const ErrorTrap&) = delete;

  // Whether any request so far failed.
  bool failed() {
    settle();
    return code_.load() != 0;
  }

private:
  // Makes sure the errors of every request sent so far have been seen: a
  // round trip, unless the server has already answered the last request
  // sent (a reply, or the round trip of an XSync), which it does only after
  // every request before it.
  void settle() {
    if (XNextRequest(display_) - 1 != LastKnownRequestProcessed(display_))
      XSync(display_, False);
  }

  Display* display_;
  std::atomic<int> code_{0};
  std::atomic<int>* outer_;
};

using Clock = XSelectionReader::Clock;

// The property's items as they travel: Xlib hands out format 16 as shorts
// and format 32 as longs; both are narrowed back to two and four bytes.
std::string ItemsAsBytes(const unsigned char* data, int format, unsigned long items) {
  std::string bytes;
  if (format == 8) {
    bytes.assign(reinterpret_cast<const char*>(data), items);
  } else if (format == 16) {
    const auto* shorts = reinterpret_cast<const short*>(data);
    bytes.resize(items * 2);
    for (unsigned long i = 0; i < items; ++i) {
      uint16_t value = uint16_t(shorts[i]);
      memcpy(&bytes[i * 2], &value, 2);
    }
  } else if (format == 32) {
    const auto* longs = reinterpret_cast<const long*>(data);
    bytes.resize(items * 4);
    for (unsigned long i = 0; i < items; ++i) {
      uint32_t value = uint32_t(longs[i]);
      memcpy(&bytes[i * 4], &value, 4);
    }
  }
  return bytes;
}

bool IsOnWindow(const XEvent& event, Window window) {
  return event.xany.window == window ||
         (event.type == SelectionNotify && event.xselection.requestor == window);
}

} // namespace

XSelectionReader::XSelectionReader(bool watch_clipboard, const std::atomic<bool>* cancelled)
    : cancelled_(cancelled) {
  display_ = XOpenDisplay(nullptr);
  if (!display_)
    return;
  ErrorRouter::Add(display_);
  int error_base = 0;
  if (!watch_clipboard) {
    fixes_event_base_ = -1;
  } else if (XFixesQueryExtension(display_, &fixes_event_base_, &error_base)) {
    int major = 0, minor = 0;
    XFixesQueryVersion(display_, &major, &minor);
    XFixesSelectSelectionInput(display_, DefaultRootWindow(display_), atom("CLIPBOARD"),
                               XFixesSetSelectionOwnerNotifyMask |
                                   XFixesSelectionWindowDestroyNotifyMask |
                                   XFixesSelectionClientCloseNotifyMask);
  } else {
    fixes_event_base_ = -1;
  }
  last_owner_ = XGetSelectionOwner(display_, atom("CLIPBOARD"));
  XSync(display_, False);
}

XSelectionReader::~XSelectionReader() {
  if (!display_)
    return;
  // Its last errors still count as ours; it leaves the router before its
  // address can be another display's.
  XSync(display_, False);
  ErrorRouter::Remove(display_);
  XCloseDisplay(display_);
}

void XSelectionReader::InstallErrorHandler() {
  ErrorRouter::Install();
}

uint64_t XSelectionReader::untrappedErrors() const {
  return display_ ? ErrorRouter::Untrapped(display_) : 0;
}

unsigned long XSelectionReader::atom(const char* name) {
  return XInternAtom(display_, name, False);
}

unsigned long XSelectionReader::owner(const char* selection) {
  if (!display_)
    return 0;
  return XGetSelectionOwner(display_, atom(selection));
}

void XSelectionReader::disown(const char* selection) {
  if (!display_)
    return;
  XSetSelectionOwner(display_, atom(selection), None, CurrentTime);
  XSync(display_, False);
}

std::optional<int> XSelectionReader::pidOfWindow(unsigned long window) {
  if (!display_ || window == 0)
    return std::nullopt;
  ErrorTrap trap(display_);
  std::optional<int> pid = PidOfWindowClient(display_, window);
  if (trap.failed())
    return std::nullopt;
  return pid;
}

uint64_t XSelectionReader::clipboardChanges() {
  if (!display_)
    return changes_;
  if (fixes_event_base_ < 0) {
    Window now = XGetSelectionOwner(display_, atom("CLIPBOARD"));
    if (now != last_owner_) {
      last_owner_ = now;
      ++changes_;
    }
    return changes_;
  }
  // A round trip first: every change the server made before it is then in
  // our queue.
  XSync(display_, False);
  XEvent event;
  Atom clipboard = atom("CLIPBOARD");
  while (XCheckTypedEvent(display_, fixes_event_base_ + XFixesSelectionNotify, &event)) {
    if (reinterpret_cast<XFixesSelectionNotifyEvent*>(&event)->selection == clipboard)
      ++changes_;
  }
  return changes_;
}

bool XSelectionReader::waitForEvent(WaitBudget& budget, XEvent* event,
                                    bool (*match)(const XEvent&, const void*),
                                    const void* context) {
  struct Predicate {
    bool (*match)(const XEvent&, const void*);
    const void* context;
  } predicate{match, context};
  auto check = [](Display*, XEvent* candidate, XPointer data) -> Bool {
    auto* p = reinterpret_cast<Predicate*>(data);
    return p->match(*candidate, p->context) ? True : False;
  };
  Clock::time_point start = Clock::now();
  Clock::time_point deadline =
      std::min({start + budget.idle, start + budget.stall, budget.ceiling});
  for (;;) {
    if (XCheckIfEvent(display_, event, check, reinterpret_cast<XPointer>(&predicate)))
      return true;
    Clock::time_point now = Clock::now();
    bool cancelled = cancelled_ && cancelled_->load();
    if (now >= deadline || cancelled) {
      // Silence costs the budget; a cancelled reader waits no more at all.
      budget.stall -= std::chrono::duration_cast<std::chrono::milliseconds>(now - start);
      if (cancelled)
        budget.stall = std::chrono::milliseconds(0);
      return false;
    }
    auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
    XFlush(display_);
    pollfd descriptor{ConnectionNumber(display_), POLLIN, 0};
    // Short slices, so that a cancellation is seen soon.
    poll(&descriptor, 1, int(std::clamp<long long>(remaining, 1, 50)));
  }
}

std::optional<std::string> XSelectionReader::readProperty(unsigned long window,
                                                          unsigned long property, size_t limit,
                                                          std::string* type, int* format,
                                                          bool* exists) {
  Atom actual = None;
  int actual_format = 0;
  unsigned long items = 0, after = 0;
  unsigned char* data = nullptr;
  long units = long(std::min<size_t>(limit / 4 + 1, size_t(LONG_MAX / 4)));
  int status = XGetWindowProperty(display_, window, property, 0, units, True, AnyPropertyType,
                                  &actual, &actual_format, &items, &after, &data);
  if (status != Success) {
    if (data)
      XFree(data);
    return std::nullopt;
  }
  *exists = actual != None;
  std::optional<std::string> bytes;
  if (actual == None) {
    bytes = std::string();
  } else if (after > 0) {
    // Larger than we take: the property stays unread and is dropped.
    XDeleteProperty(display_, window, property);
  } else if (actual_format == 8 || actual_format == 16 || actual_format == 32) {
    bytes = ItemsAsBytes(data, actual_format, items);
    if (bytes->size() > limit)
      bytes.reset();
    char* name = XGetAtomName(display_, actual);
    *type = name ? name : "";
    if (name)
      XFree(name);
    *format = actual_format;
  }
  if (data)
    XFree(data);
  return bytes;
}

namespace {
struct Wanted {
  Window window;
  Atom property;
};
} // namespace

std::optional<SelectionAnswer> XSelectionReader::readAnswer(unsigned long requestor,
                                                            unsigned long property,
                                                            WaitBudget& budget, size_t limit) {
  Wanted wanted{requestor, property};
  XEvent event;
  bool notified = waitForEvent(
      budget, &event,
      [](const XEvent& e, const void* w) {
        return e.type == SelectionNotify &&
               e.xselection.requestor == static_cast<const Wanted*>(w)->window;
      },
      &wanted);
  if (!notified || event.xselection.property == None)
    return std::nullopt;
  SelectionAnswer first;
  bool exists = false;
  std::optional<std::string> bytes =
      readProperty(requestor, property, limit, &first.type, &first.format, &exists);
  if (!bytes || !exists)
    return std::nullopt;
  if (first.type != "INCR") {
    first.bytes = std::move(*bytes);
    return first;
  }
  // The INCR header is one 32-bit size, a lower bound of what follows:
  // anything else is no transfer to wait for, and a size beyond the limit
  // would only be cut at the end.
  if (first.format != 32 || bytes->size() != 4)
    return std::nullopt;
  uint32_t announced = 0;
  memcpy(&announced, bytes->data(), 4);
  if (announced > limit)
    return std::nullopt;
  // INCR: the owner sends chunks, each after we delete the last; an empty
  // chunk ends the transfer. A PropertyNotify whose property is already gone
  // (our own deletions, the INCR header itself) is skipped. Each chunk starts
  // the idle wait anew.
  SelectionAnswer whole;
  whole.type.clear();
  for (;;) {
    bool more = waitForEvent(
        budget, &event,
        [](const XEvent& e, const void* w) {
          auto* wanted = static_cast<const Wanted*>(w);
          return e.type == PropertyNotify && e.xproperty.window == wanted->window &&
                 e.xproperty.atom == wanted->property && e.xproperty.state == PropertyNewValue;
        },
        &wanted);
    if (!more)
      return std::nullopt; // the owner stopped, went away, or never ends
    std::string type;
    int format = 8;
    bool chunk_exists = false;
    std::optional<std::string> chunk = readProperty(requestor, property, limit - whole.bytes.size(),
                                                    &type, &format, &chunk_exists);
    if (!chunk)
      return std::nullopt; // over the limit, or malformed
    if (!chunk_exists)
      continue;
    if (whole.type.empty()) {
      whole.type = type;
      whole.format = format;
    } else if (type != whole.type || format != whole.format) {
      return std::nullopt; // chunks of one transfer change their kind
    }
    if (chunk->empty())
      return whole;
    whole.bytes += *chunk;
  }
}

std::optional<SelectionAnswer> XSelectionReader::convert(const char* selection,
                                                         const std::string& target,
                                                         WaitBudget& budget, size_t limit,
                                                         unsigned long* owner) {
  if (owner)
    *owner = 0;
  if (!display_ || target.empty())
    return std::nullopt;
  tidy();
  std::optional<SelectionAnswer> answer;
  bool failed = false;
  Window requestor = None;
  {
    ErrorTrap trap(display_);
    // A window for each conversion: a late answer to an abandoned one cannot
    // land in the next.
    requestor = XCreateSimpleWindow(display_, DefaultRootWindow(display_), -10, -10, 1, 1, 0, 0, 0);
    XSelectInput(display_, requestor, PropertyChangeMask);
    Atom property = atom("ORVANE_SELECTION");
    XConvertSelection(display_, atom(selection), atom(target.c_str()), property, requestor,
                      CurrentTime);
    // Either sends the requests.
    if (owner)
      *owner = XGetSelectionOwner(display_, atom(selection));
    else
      XFlush(display_);
    answer = readAnswer(requestor, property, budget, limit);
    // Without a round trip when the last request was answered (the
    // property's read).
    failed = trap.failed();
  }
  // The window goes now; the events still queued or coming for it are
  // dropped by the next tidy(), once the caller has its answer.
  XDestroyWindow(display_, requestor);
  XFlush(display_);
  spent_requestors_.push_back(requestor);
  if (failed || !answer || answer->type.empty())
    return std::nullopt;
  return answer;
}

void XSelectionReader::tidy() {
  if (!display_ || spent_requestors_.empty())
    return;
  XSync(display_, False);
  // Events already queued for the windows would otherwise stay forever.
  for (unsigned long window : spent_requestors_) {
    XEvent event;
    while (XCheckIfEvent(
        display_, &event,
        [](Display*, XEvent* e, XPointer w) -> Bool {
          return IsOnWindow(*e, *reinterpret_cast<Window*>(w)) ? True : False;
        },
        reinterpret_cast<XPointer>(&window))) {
    }
  }
  spent_requestors_.clear();
}

std::optional<std::vector<std::string>> XSelectionReader::targets(const char* selection,
                                                                  WaitBudget& budget, size_t max) {
  std::optional<SelectionAnswer> answer = convert(selection, "TARGETS", budget, max * 4);
  if (!answer || answer->format != 32 || (answer->type != "ATOM" && answer->type != "TARGETS"))
    return std::nullopt;
  std::vector<Atom> atoms;
  for (size_t i = 0; i + 4 <= answer->bytes.size(); i += 4) {
    uint32_t value = 0;
    memcpy(&value, answer->bytes.data() + i, 4);
    if (value != None)
      atoms.push_back(Atom(value));
  }
  std::vector<std::string> names;
  if (atoms.empty())
    return names;
  // One request for every name; an atom the server never made stays without.
  std::vector<char*> found(atoms.size(), nullptr);
  {
    ErrorTrap trap(display_);
    XGetAtomNames(display_, atoms.data(), int(atoms.size()), found.data());
  }
  std::set<std::string> seen;
  for (char* name : found) {
    if (name && seen.insert(name).second)
      names.push_back(name);
    if (name)
      XFree(name);
  }
  return names;
}

bool XSelectionReader::noKeyHeld() {
  if (!display_)
    return false;
  char keys[32] = {};
  XQueryKeymap(display_, keys);
  for (char byte : keys)
    if (byte)
      return false;
  return true;
}

bool XSelectionReader::sendChord(const std::vector<unsigned long>& keysyms) {
  if (!display_)
    return false;
  int event_base = 0, error_base = 0, major = 0, minor = 0;
  if (!XTestQueryExtension(display_, &event_base, &error_base, &major, &minor))
    return false;
  std::vector<KeyCode> codes;
  for (unsigned long keysym : keysyms) {
    KeyCode code = XKeysymToKeycode(display_, KeySym(keysym));
    if (code == 0)
      return false;
    codes.push_back(code);
  }
  ErrorTrap trap(display_);
  for (KeyCode code : codes)
    XTestFakeKeyEvent(display_, code, True, CurrentTime);
  for (auto code = codes.rbegin(); code != codes.rend(); ++code)
    XTestFakeKeyEvent(display_, *code, False, CurrentTime);
  return !trap.failed();
}

} // namespace orvane
