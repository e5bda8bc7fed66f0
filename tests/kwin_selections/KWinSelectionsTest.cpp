// KWinSelections and DataControl against a real headless KWin: selections of
// real Wayland clients (a native GTK window, wl-copy, a data-control owner
// that behaves well or badly on purpose), read back with wl-paste, keys
// through KWin's fake-input.
#include "desktop/kwin/KWinSelections.h"
#include "desktop/kwin/FakeInputKeys.h"
#include "desktop/wayland/DataControl.h"
#include "kwin_selections/KWinTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <algorithm>
#include <gdk/gdkwayland.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace orvane {

// Failures show a saved type by name, size and beginning.
void PrintTo(const SelectionTarget& item, std::ostream* out) {
  gchar* start = g_strescape(item.bytes.substr(0, 40).c_str(), nullptr);
  *out << "{" << item.target << ", " << item.bytes.size() << " bytes: \"" << start << "\"}";
  g_free(start);
}

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kEvdevA = 30;

bool LogHas(const LogCapture& log, const std::string& part) {
  std::vector<std::string> lines = log.messages();
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

std::string JoinedLog(const LogCapture& log) {
  std::string all;
  for (const std::string& line : log.messages())
    all += line + "\n";
  return all;
}

// Bytes of every value 0..255, repeated: a binary type with NULs and bytes
// that are no UTF-8.
std::string BinaryBytes(size_t length) {
  std::string bytes;
  for (size_t i = 0; i < length; ++i)
    bytes.push_back(char((i * 7 + i / 256) & 0xff));
  return bytes;
}

// The CLIPBOARD's bytes for one type as wl-paste (an independent client)
// reads them, with a deadline; this thread's main loop does NOT run meanwhile.
std::optional<std::string> Paste(const TempDir& dir, const std::string& type,
                                 bool primary = false) {
  std::string out = dir.file("paste.out");
  std::vector<std::string> argv{"wl-paste", "-n", "-t", type};
  if (primary)
    argv.push_back("--primary");
  int status = RunToolBlocking(argv, out);
  if (status != 0)
    return std::nullopt;
  return TempDir::Read(out);
}

std::vector<std::string> PastedTypes(const TempDir& dir) {
  std::string out = dir.file("types.out");
  if (RunToolBlocking({"wl-paste", "--list-types"}, out) != 0)
    return {};
  std::vector<std::string> types;
  gchar** lines = g_strsplit(TempDir::Read(out).c_str(), "\n", -1);
  for (gchar** line = lines; *line; ++line) {
    if (**line)
      types.push_back(*line);
  }
  g_strfreev(lines);
  std::sort(types.begin(), types.end());
  return types;
}

// Starts the data-control owner fixture with files for its TYPE=FILE items.
std::unique_ptr<Child> StartOwner(const TempDir& dir, const ClipboardContents& contents,
                                  const std::vector<std::string>& extra = {}) {
  std::vector<std::string> argv{DataControlOwner()};
  int n = 0;
  for (const SelectionTarget& item : contents) {
    std::string file = dir.file("item" + std::to_string(n++));
    TempDir::WriteFile(file, item.bytes);
    argv.push_back(item.target + "=" + file);
  }
  argv.insert(argv.end(), extra.begin(), extra.end());
  return StartAndWaitFor(argv, "ready");
}

// Waits (running the main loop) until the counter moves past `from`.
bool WaitForChange(const std::function<uint64_t()>& counter, uint64_t from, double seconds = 10) {
  return SpinUntil([&] { return counter() != from; }, seconds);
}

ClipboardContents Sorted(ClipboardContents contents) {
  std::sort(contents.begin(), contents.end(),
            [](const SelectionTarget& a, const SelectionTarget& b) { return a.target < b.target; });
  return contents;
}

// A native GTK entry with its text selected by keys (so GTK takes PRIMARY
// with the serial of a real input event).
class SelectedEntry {
public:
  explicit SelectedEntry(const std::string& text) {
    window_ =
        StartAndWaitFor({"/usr/bin/python3", FixturePath("entry_window.py"), text}, "focused");
  }
  bool started() const { return window_ != nullptr; }
  bool selectAll(DataControl& data_control) {
    uint64_t before = data_control.primaryChanges();
    FakeInputKeys keys;
    if (!keys.send(ChordEvents({kEvdevLeftCtrl, kEvdevA}, {})))
      return false;
    return WaitForChange([&] { return data_control.primaryChanges(); }, before);
  }

private:
  std::unique_ptr<Child> window_;
};

TEST(DataControlTest, ReadsWhatWlCopySetAndWlPasteReadsWhatItSets) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect()) << JoinedLog(log);
  uint64_t before = data_control.clipboardChanges();
  std::unique_ptr<Child> copy =
      Child::Start({"wl-copy", "--foreground", "-t", "application/x-orvane-test", "from wl-copy"});
  ASSERT_TRUE(copy);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  std::optional<std::vector<std::string>> types = data_control.mimeTypes(SelectionKind::kClipboard);
  ASSERT_TRUE(types);
  EXPECT_EQ(*types, std::vector<std::string>{"application/x-orvane-test"});
  EXPECT_EQ(data_control.read(SelectionKind::kClipboard, "application/x-orvane-test"),
            "from wl-copy");

  ASSERT_TRUE(data_control.setClipboard({{"text/x-orvane-back", "from DataControl\n"}}));
  EXPECT_TRUE(copy->waitExit(10)) << "wl-copy still owns the clipboard";
  EXPECT_TRUE(data_control.ownsClipboard());
  EXPECT_EQ(PastedTypes(dir), std::vector<std::string>{"text/x-orvane-back"});
  EXPECT_EQ(Paste(dir, "text/x-orvane-back"), "from DataControl\n");
}

TEST(DataControlTest, SavesAndRestoresEveryMimeTypeByteForByte) {
  LogCapture log;
  TempDir dir;
  ClipboardContents original{
      {"text/plain;charset=utf-8", "Grüße, \xe2\x80\x9cquoted\xe2\x80\x9d\n"},
      {"image/png", BinaryBytes(300000)},
      {"application/x-orvane-empty", ""},
      {"text/html", "<b>bold</b>"},
  };
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  uint64_t before = selections.clipboardChangeCount();
  std::unique_ptr<Child> owner = StartOwner(dir, original);
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return selections.clipboardChangeCount(); }, before));

  ClipboardContents saved = selections.saveClipboard();
  EXPECT_EQ(Sorted(saved), Sorted(original));

  // Someone else copies; the restore brings every saved type back.
  std::unique_ptr<Child> other =
      Child::Start({"wl-copy", "--foreground", "-t", "text/plain", "something else"});
  ASSERT_TRUE(other);
  ASSERT_TRUE(owner->waitExit(10)) << "the owner was not told it lost the clipboard";
  ASSERT_EQ(Paste(dir, "text/plain"), "something else");
  selections.restoreClipboard(saved);
  EXPECT_TRUE(other->waitExit(10));

  std::vector<std::string> wanted;
  for (const SelectionTarget& item : original)
    wanted.push_back(item.target);
  std::sort(wanted.begin(), wanted.end());
  EXPECT_EQ(PastedTypes(dir), wanted);
  // Read while this thread's main loop is not running: the serving does not
  // need it.
  for (const SelectionTarget& item : original) {
    std::optional<std::string> pasted = Paste(dir, item.target);
    ASSERT_TRUE(pasted) << item.target;
    EXPECT_TRUE(*pasted == item.bytes)
        << item.target << ": " << pasted->size() << " bytes, " << item.bytes.size() << " wanted";
  }
  // A save while our restore is the clipboard gives the same bytes.
  EXPECT_EQ(Sorted(selections.saveClipboard()), Sorted(original));
  EXPECT_EQ(selections.clipboardText(), original[0].bytes);
}

// The ids of this process's threads that carry `name`.
std::vector<std::string> ThreadsNamed(const std::string& name) {
  std::vector<std::string> found;
  GDir* dir = g_dir_open("/proc/self/task", 0, nullptr);
  if (!dir)
    return found;
  while (const gchar* tid = g_dir_read_name(dir)) {
    std::string comm = TempDir::Read(std::string("/proc/self/task/") + tid + "/comm");
    if (!comm.empty() && comm.back() == '\n')
      comm.pop_back();
    if (comm == name)
      found.push_back(tid);
  }
  g_dir_close(dir);
  return found;
}

// How often a thread of this process has been switched out so far.
long ContextSwitchesOf(const std::string& tid) {
  std::string status = TempDir::Read("/proc/self/task/" + tid + "/status");
  long total = 0;
  for (const char* key : {"voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"}) {
    size_t at = status.find(std::string("\n") + key);
    if (at != std::string::npos)
      total += std::atol(status.c_str() + at + 1 + strlen(key));
  }
  return total;
}

TEST(DataControlTest, WarmUpConnectsInTheBackgroundAndTheFirstReadUsesThatConnection) {
  LogCapture log;
  const std::string text = "selected after the warm-up";
  KWinSelections selections;
  Selections& seam = selections;
  EXPECT_FALSE(selections.dataControl().connected());
  seam.warmUp();
  // The connection comes up on its own thread: this thread neither waits
  // for it nor runs its main loop meanwhile.
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (!selections.dataControl().connected() && Clock::now() < deadline)
    g_usleep(10 * 1000);
  ASSERT_TRUE(selections.dataControl().connected())
      << "no data-control connection after the warm-up\n"
      << JoinedLog(log);
  std::vector<std::string> threads = ThreadsNamed(DataControl::kThreadName);
  ASSERT_EQ(threads.size(), 1u) << "one connection thread, no second one";

  // A warmed connection waits for the compositor's events; it does not poll.
  long before = ContextSwitchesOf(threads[0]);
  g_usleep(1000 * 1000);
  EXPECT_LE(ContextSwitchesOf(threads[0]) - before, 2) << "the idle connection thread woke up";

  // The first read goes over the warmed connection (a second warm-up
  // changes nothing) and sees the selection of a real client.
  seam.warmUp();
  SelectedEntry entry(text);
  ASSERT_TRUE(entry.started());
  ASSERT_TRUE(entry.selectAll(selections.dataControl())) << "GTK did not take PRIMARY";
  EXPECT_EQ(selections.primaryText(), text);
  EXPECT_EQ(ThreadsNamed(DataControl::kThreadName), threads);
  EXPECT_FALSE(LogHas(log, "did not answer")) << JoinedLog(log);
}

TEST(DataControlTest, AReadDuringTheWarmUpWaitsForItsConnection) {
  LogCapture log;
  KWinSelections selections;
  selections.warmUp();
  // Asked at once, while the warm-up's connection may still be on its way:
  // the read waits for that one attempt and does not make another.
  ASSERT_TRUE(selections.dataControl().connect()) << JoinedLog(log);
  EXPECT_EQ(ThreadsNamed(DataControl::kThreadName).size(), 1u);
  uint64_t before = selections.dataControl().clipboardChanges();
  std::unique_ptr<Child> copy =
      Child::Start({"wl-copy", "--foreground", "-t", "text/plain", "after the warm-up"});
  ASSERT_TRUE(copy);
  ASSERT_TRUE(WaitForChange([&] { return selections.dataControl().clipboardChanges(); }, before));
  EXPECT_EQ(selections.clipboardText(), "after the warm-up");
}

// A Unix socket in the runtime folder that only counts who connects to it.
class CountingSocket {
public:
  CountingSocket() {
    name_ = "wayland-orvane-counting-" + std::to_string(getpid());
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    path_ = std::string(runtime ? runtime : "/tmp") + "/" + name_;
    unlink(path_.c_str());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
    listening_ = fd_ >= 0 &&
                 bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                 listen(fd_, 8) == 0;
  }
  ~CountingSocket() {
    if (fd_ >= 0)
      close(fd_);
    unlink(path_.c_str());
  }
  bool listening() const { return listening_; }
  const std::string& name() const { return name_; }
  int connections() {
    int count = 0;
    for (int peer; (peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      close(peer);
      ++count;
    }
    return count;
  }

private:
  std::string name_;
  std::string path_;
  int fd_ = -1;
  bool listening_ = false;
};

TEST(DataControlTest, TheOfferCheckAsksOverGdksConnectionAndOpensNoneOfItsOwn) {
  // KWin takes most of a second over each new connection of a large
  // executable, and the launch waits for this check. (No other test of this
  // program asks it, so its kept answer does not hide the question.)
  gdk_set_allowed_backends("wayland");
  ASSERT_TRUE(gdk_init_check(nullptr, nullptr)) << "GDK could not open KWin's display";
  ASSERT_TRUE(GDK_IS_WAYLAND_DISPLAY(gdk_display_get_default()));
  // A connection of its own would go to this socket from now on.
  CountingSocket counting;
  ASSERT_TRUE(counting.listening());
  std::string session_display = getenv("WAYLAND_DISPLAY");
  setenv("WAYLAND_DISPLAY", counting.name().c_str(), 1);
  bool offered = DataControlOffered(milliseconds(1000));
  setenv("WAYLAND_DISPLAY", session_display.c_str(), 1);
  EXPECT_TRUE(offered) << "KWin offers data-control";
  EXPECT_EQ(counting.connections(), 0) << "the check opened a connection of its own";
}

TEST(DataControlTest, PrimaryTextOfANativeGtkEntry) {
  LogCapture log;
  const std::string text = "Selected in GTK: \xc3\xa9t\xc3\xa9 \xe2\x86\x92 fin";
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  SelectedEntry entry(text);
  ASSERT_TRUE(entry.started());
  ASSERT_TRUE(entry.selectAll(selections.dataControl())) << "GTK did not take PRIMARY";
  EXPECT_EQ(selections.primaryText(), text);
  // Wayland does not tell the owner's process.
  EXPECT_EQ(selections.primaryOwnerPid(), std::nullopt);
}

TEST(DataControlTest, CopyChordCopiesFromAGtkEntryWhileAltIsHeld) {
  LogCapture log;
  const std::string text = "copied by the chord";
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  SelectedEntry entry(text);
  ASSERT_TRUE(entry.started());
  ASSERT_TRUE(entry.selectAll(selections.dataControl()));
  // The user still holds Alt from the hotkey (pressed on a device of its own).
  FakeInputKeys user;
  ASSERT_TRUE(user.send({{kEvdevLeftAlt, true}}));
  uint64_t count = selections.clipboardChangeCount();
  ASSERT_TRUE(selections.sendCopyChord(CopyChord::kControlC)) << JoinedLog(log);
  for (int i = 0; i < 100 && selections.clipboardChangeCount() == count; ++i)
    selections.pause(milliseconds(20));
  user.send({{kEvdevLeftAlt, false}});
  ASSERT_NE(selections.clipboardChangeCount(), count) << "the chord copied nothing";
  EXPECT_EQ(selections.clipboardText(), text);
}

// Why the chord releases Alt first: with Alt still down, Ctrl+C reaches
// GTK as Ctrl+Alt+C, which copies nothing.
TEST(DataControlTest, WithAltHeldAPlainCtrlCCopiesNothing) {
  LogCapture log;
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  SelectedEntry entry("not copied");
  ASSERT_TRUE(entry.started());
  ASSERT_TRUE(entry.selectAll(selections.dataControl()));
  FakeInputKeys user;
  ASSERT_TRUE(user.send({{kEvdevLeftAlt, true}}));
  uint64_t count = selections.clipboardChangeCount();
  FakeInputKeys chord;
  ASSERT_TRUE(chord.send(ChordEvents({kEvdevLeftCtrl, kEvdevC}, {})));
  for (int i = 0; i < 25; ++i)
    selections.pause(milliseconds(20));
  user.send({{kEvdevLeftAlt, false}});
  EXPECT_EQ(selections.clipboardChangeCount(), count);
}

TEST(DataControlTest, CopyFallbackRestoresTheClipboardItReplaced) {
  LogCapture log;
  TempDir dir;
  ClipboardContents original{{"text/plain;charset=utf-8", "the user's own copy"},
                             {"application/x-orvane-binary", BinaryBytes(5000)}};
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  uint64_t before = selections.clipboardChangeCount();
  std::unique_ptr<Child> owner = StartOwner(dir, original);
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return selections.clipboardChangeCount(); }, before));
  SelectedEntry entry("text of the front window");
  ASSERT_TRUE(entry.started());
  ASSERT_TRUE(entry.selectAll(selections.dataControl()));

  // What the capture does: save, chord, wait for the change, read, restore.
  uint64_t count = selections.clipboardChangeCount();
  ClipboardContents saved = selections.saveClipboard();
  ASSERT_TRUE(selections.sendCopyChord(CopyChord::kControlC));
  for (int i = 0; i < 100 && selections.clipboardChangeCount() == count; ++i)
    selections.pause(milliseconds(20));
  ASSERT_NE(selections.clipboardChangeCount(), count);
  EXPECT_EQ(selections.clipboardText(), "text of the front window");
  selections.restoreClipboard(saved);

  EXPECT_EQ(PastedTypes(dir),
            (std::vector<std::string>{"application/x-orvane-binary", "text/plain;charset=utf-8"}));
  for (const SelectionTarget& item : original)
    EXPECT_EQ(Paste(dir, item.target), item.bytes) << item.target;
}

TEST(DataControlTest, AnOwnerThatNeverWritesCostsABoundedWait) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect());
  uint64_t before = data_control.clipboardChanges();
  std::unique_ptr<Child> owner =
      StartOwner(dir, {{"text/plain", "fine"}},
                 {"--hang", "text/plain;charset=utf-8", "--hang", "application/x-hang"});
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  Clock::time_point start = Clock::now();
  SavedSelection saved = data_control.saveClipboard();
  auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  // Two silent types spend the stall budget (1 s by default); the bound here
  // only says that the wait ends, far from any real hang.
  EXPECT_LT(took.count(), 10000);
  EXPECT_EQ(saved.offered, 3u);
  EXPECT_TRUE(std::none_of(saved.types.begin(), saved.types.end(), [](const SelectionTarget& t) {
    return t.target.find("hang") != std::string::npos || t.target == "text/plain;charset=utf-8";
  }));
  EXPECT_TRUE(LogHas(log, "stopped answering for")) << JoinedLog(log);
  // The text read falls back past the silent UTF-8 type, within its budget.
  std::optional<std::string> text = data_control.readText(SelectionKind::kClipboard);
  EXPECT_TRUE(!text || *text == "fine");
  // The connection still works.
  EXPECT_EQ(data_control.read(SelectionKind::kClipboard, "text/plain"), "fine");
}

TEST(DataControlTest, TheMainLoopRunsWhileAnOwnerIsSilent) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect());
  uint64_t before = data_control.clipboardChanges();
  std::unique_ptr<Child> owner = StartOwner(dir, {}, {"--hang", "text/plain"});
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  int ticks = 0;
  guint timer = g_timeout_add(
      20,
      [](gpointer data) -> gboolean {
        ++*static_cast<int*>(data);
        return G_SOURCE_CONTINUE;
      },
      &ticks);
  // The silent owner costs the idle wait (500 ms); the main loop's timer
  // goes on meanwhile.
  EXPECT_EQ(data_control.read(SelectionKind::kClipboard, "text/plain"), std::nullopt);
  g_source_remove(timer);
  EXPECT_GE(ticks, 10);
}

TEST(DataControlTest, AReaderThatClosesEarlyLeavesTheProcessUp) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect());
  std::string big = BinaryBytes(8 << 20);
  ASSERT_TRUE(data_control.setClipboard({{"application/x-orvane-big", big}}));
  // head closes the pipe after 10 bytes: wl-paste dies of SIGPIPE and closes
  // ours, so our next write fails with EPIPE.
  std::string out = dir.file("head.out");
  ASSERT_EQ(
      RunToolBlocking({"sh", "-c", "wl-paste -n -t application/x-orvane-big | head -c 10"}, out),
      0);
  EXPECT_EQ(TempDir::Read(out), big.substr(0, 10));
  SpinFor(0.3);
  // Still here, and still serving.
  EXPECT_TRUE(data_control.ownsClipboard());
  EXPECT_TRUE(Paste(dir, "application/x-orvane-big") == big);
}

TEST(DataControlTest, AHundredMegabyteTypeIsDroppedAndTheRestSaved) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect());
  uint64_t before = data_control.clipboardChanges();
  std::unique_ptr<Child> owner = StartOwner(dir, {{"text/plain", "small"}},
                                            {"--flood", "application/octet-stream", "100000000"});
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  SavedSelection saved = data_control.saveClipboard();
  EXPECT_TRUE(saved.too_large);
  EXPECT_EQ(saved.types, (ClipboardContents{{"text/plain", "small"}}));
  EXPECT_TRUE(LogHas(log, "does not fit in")) << JoinedLog(log);
}

TEST(DataControlTest, EndlessDataEndsAtTheCap) {
  LogCapture log;
  TempDir dir;
  DataControlLimits limits;
  limits.max_bytes = 1 << 20;
  DataControl data_control(limits);
  ASSERT_TRUE(data_control.connect());
  uint64_t before = data_control.clipboardChanges();
  std::unique_ptr<Child> owner = StartOwner(dir, {}, {"--flood", "text/plain", "0"});
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  EXPECT_EQ(data_control.read(SelectionKind::kClipboard, "text/plain"), std::nullopt);
  EXPECT_EQ(data_control.readText(SelectionKind::kClipboard), std::nullopt);
  EXPECT_TRUE(LogHas(log, "larger than")) << JoinedLog(log);
}

TEST(DataControlTest, AThousandMimeTypesAreCappedAndBadNamesIgnored) {
  LogCapture log;
  TempDir dir;
  DataControl data_control;
  ASSERT_TRUE(data_control.connect());
  uint64_t before = data_control.clipboardChanges();
  std::string long_name = "application/" + std::string(300, 'x');
  std::unique_ptr<Child> owner = StartOwner(
      dir, {{"text/plain", "plain"}, {"bad\ttype", "x"}, {long_name, "y"}}, {"--many", "1000"});
  ASSERT_TRUE(owner);
  ASSERT_TRUE(WaitForChange([&] { return data_control.clipboardChanges(); }, before));
  std::optional<std::vector<std::string>> types = data_control.mimeTypes(SelectionKind::kClipboard);
  ASSERT_TRUE(types);
  EXPECT_EQ(types->size(), 512u);
  EXPECT_EQ(types->front(), "text/plain");
  EXPECT_TRUE(std::find(types->begin(), types->end(), "bad\ttype") == types->end());
  EXPECT_TRUE(std::find(types->begin(), types->end(), long_name) == types->end());
  EXPECT_TRUE(LogHas(log, "MIME types we ignore")) << JoinedLog(log);
  SavedSelection saved = data_control.saveClipboard();
  ASSERT_FALSE(saved.types.empty());
  EXPECT_EQ(saved.types.front(), (SelectionTarget{"text/plain", "plain"}));
  // Whatever the budget allowed is right, byte for byte.
  for (size_t i = 1; i < saved.types.size(); ++i) {
    const std::string& type = saved.types[i].target;
    ASSERT_EQ(type.rfind("application/x-many-", 0), 0u) << type;
    EXPECT_EQ(saved.types[i].bytes, type.substr(strlen("application/x-many-")));
  }
}

TEST(DataControlTest, AReaderThatStopsReadingIsDroppedAndOthersStillServed) {
  LogCapture log;
  TempDir dir;
  DataControlLimits limits;
  limits.serve_idle_wait = milliseconds(500);
  DataControl data_control(limits);
  ASSERT_TRUE(data_control.connect());
  std::string big = BinaryBytes(4 << 20);
  ASSERT_TRUE(data_control.setClipboard({{"application/x-orvane-big", big}}));
  // wl-paste writes into a pipe nobody reads: once it is full, wl-paste
  // stops reading ours.
  std::unique_ptr<Child> stuck =
      Child::Start({"sh", "-c", "wl-paste -n -t application/x-orvane-big | sleep 30"});
  ASSERT_TRUE(stuck);
  EXPECT_TRUE(SpinUntil([&] { return LogHas(log, "a client stopped reading the clipboard"); }, 10))
      << JoinedLog(log);
  EXPECT_TRUE(Paste(dir, "application/x-orvane-big") == big);
}

TEST(DataControlTest, AnEmptyRestoreLeavesTheClipboardWithoutOwner) {
  LogCapture log;
  TempDir dir;
  KWinSelections selections;
  ASSERT_TRUE(selections.dataControl().connect());
  selections.restoreClipboard({{"text/plain", "ours"}});
  ASSERT_EQ(Paste(dir, "text/plain"), "ours");
  uint64_t before = selections.clipboardChangeCount();
  selections.restoreClipboard({});
  ASSERT_TRUE(WaitForChange([&] { return selections.clipboardChangeCount(); }, before));
  EXPECT_EQ(selections.dataControl().mimeTypes(SelectionKind::kClipboard), std::nullopt);
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});
  EXPECT_EQ(selections.clipboardText(), std::nullopt);
}

} // namespace
} // namespace orvane
