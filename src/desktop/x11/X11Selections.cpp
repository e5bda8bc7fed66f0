#include "desktop/x11/X11Selections.h"

#include "base/MainThread.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/x11/ClipboardServer.h"
#include "desktop/x11/SelectionWorker.h"
#include "desktop/x11/XSelectionReader.h"

#include <X11/keysym.h>
#include <algorithm>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <unistd.h>
#include <utility>

namespace orvane {

namespace {

using Clock = XSelectionReader::Clock;

// Targets that ask the owner to do something or describe the selection
// itself: they hold no data of their own, and GTK answers them for us.
bool IsMetaTarget(const std::string& target) {
  return target == "TARGETS" || target == "MULTIPLE" || target == "TIMESTAMP" ||
         target == "SAVE_TARGETS" || target == "DELETE" || target.rfind("INSERT_", 0) == 0;
}

std::optional<std::string> Latin1AsUtf8(const std::string& bytes) {
  gsize written = 0;
  gchar* converted = g_convert(bytes.data(), gssize(bytes.size()), "UTF-8", "ISO-8859-1", nullptr,
                               &written, nullptr);
  if (!converted)
    return std::nullopt;
  std::string text(converted, written);
  g_free(converted);
  return text;
}

// Text from a served or read answer; only the text types count.
std::optional<std::string> TextOf(const std::string& type, int format, const std::string& bytes) {
  if (format != 8)
    return std::nullopt;
  if (type == "UTF8_STRING" || type == "text/plain;charset=utf-8")
    return ValidUtf8(bytes);
  if (type == "STRING")
    return Latin1AsUtf8(bytes);
  return std::nullopt;
}

// The property type a target is served with when no save told it.
std::string DefaultTypeFor(const std::string& target) {
  return target == "TEXT" ? "UTF8_STRING" : target;
}

WaitBudget BudgetOf(const X11SelectionLimits& limits) {
  return WaitBudget(limits.idle_wait, limits.stall_budget, limits.ceiling);
}

// The selection as text, UTF8_STRING first, else STRING; both tries share
// one budget. With `owner`, also the owner the text came from, asked for
// while the first conversion goes round (0: nobody owns the selection).
// Runs on the worker thread.
std::optional<std::string> ReadSelectionText(XSelectionReader& reader, const char* selection,
                                             const X11SelectionLimits& limits,
                                             unsigned long* owner = nullptr) {
  if (!owner && reader.owner(selection) == 0)
    return std::nullopt;
  WaitBudget budget = BudgetOf(limits);
  bool first = true;
  for (const char* target : {"UTF8_STRING", "STRING"}) {
    if (budget.spent())
      break;
    std::optional<SelectionAnswer> answer = reader.convert(
        selection, target, budget, limits.max_clipboard_bytes, first ? owner : nullptr);
    if (first && owner && *owner == 0)
      return std::nullopt;
    first = false;
    if (answer) {
      if (std::optional<std::string> text = TextOf(answer->type, answer->format, answer->bytes))
        return text;
    }
  }
  return std::nullopt;
}

// What a save of the CLIPBOARD got from its owner.
struct SavedClipboard {
  std::vector<ServedTarget> targets;
  size_t offered = 0;     // data targets the owner listed
  bool cut_short = false; // the owner fell silent before every target was read
  bool no_list = false;   // the owner's answer to TARGETS was no list of atoms
};

// Every data target of the CLIPBOARD with its bytes, within the budget and
// the size cap. Runs on the worker thread; an owner in this very process
// (GTK's clipboard) is answered by the main loop meanwhile.
SavedClipboard SaveClipboardTargets(XSelectionReader& reader, const X11SelectionLimits& limits) {
  SavedClipboard saved;
  if (reader.owner("CLIPBOARD") == 0)
    return saved;
  WaitBudget budget = BudgetOf(limits);
  std::optional<std::vector<std::string>> names = reader.targets("CLIPBOARD", budget);
  if (!names) {
    saved.cut_short = budget.spent();
    saved.no_list = !saved.cut_short;
    return saved;
  }
  size_t room = limits.max_clipboard_bytes;
  for (const std::string& name : *names) {
    if (IsMetaTarget(name))
      continue;
    ++saved.offered;
    if (budget.spent()) {
      saved.cut_short = true;
      continue;
    }
    std::optional<SelectionAnswer> answer = reader.convert("CLIPBOARD", name, budget, room);
    if (!answer)
      continue;
    room -= answer->bytes.size();
    saved.targets.push_back({name, answer->type, answer->format, std::move(answer->bytes)});
  }
  return saved;
}

std::string OwnExecutable() {
  gchar* link = g_file_read_link("/proc/self/exe", nullptr);
  std::string path = link ? link : "";
  g_free(link);
  return path;
}

} // namespace

// The owner window PRIMARY was converted from and its text, written on the
// worker thread before the job's end is told.
struct X11Selections::Ahead {
  SelectionWorker::Ticket ticket;
  std::shared_ptr<std::pair<unsigned long, std::optional<std::string>>> answer;
};

X11Selections::X11Selections(X11SelectionLimits limits) : limits_(std::move(limits)) {}

X11Selections::~X11Selections() {
  *alive_ = false;
}

XSelectionReader& X11Selections::reader() {
  if (!reader_)
    reader_ = std::make_unique<XSelectionReader>();
  return *reader_;
}

SelectionWorker& X11Selections::worker() {
  if (!worker_)
    worker_ = std::make_unique<SelectionWorker>();
  return *worker_;
}

bool X11Selections::servingClipboard() const {
  return served_ && served_->owned;
}

std::optional<int> X11Selections::primaryOwnerPid() {
  return reader().pidOfWindow(reader().owner("PRIMARY"));
}

std::optional<std::string> X11Selections::readText(const char* selection) {
  // Nothing after the wait touches this object, which may be gone by then
  // (see alive_).
  std::optional<std::string> text;
  X11SelectionLimits limits = limits_;
  worker().run([&text, selection, limits](XSelectionReader& reader) {
    text = ReadSelectionText(reader, selection, limits);
  });
  return text;
}

std::optional<std::string> X11Selections::primaryText() {
  if (std::unique_ptr<Ahead> ahead = std::move(primary_ahead_)) {
    std::shared_ptr<bool> alive = alive_;
    SelectionWorker::wait(ahead->ticket);
    if (!*alive)
      return std::nullopt;
    // Taken only from the owner that holds PRIMARY now: a selection that
    // changed hands since is read from its new owner.
    auto& [owner, text] = *ahead->answer;
    if (owner != 0 && owner == reader().owner("PRIMARY"))
      return text;
  }
  return readText("PRIMARY");
}

void X11Selections::readPrimaryAhead() {
  auto answer =
      std::make_shared<std::pair<unsigned long, std::optional<std::string>>>(0, std::nullopt);
  X11SelectionLimits limits = limits_;
  SelectionWorker::Ticket ticket = worker().post([answer, limits](XSelectionReader& reader) {
    answer->second = ReadSelectionText(reader, "PRIMARY", limits, &answer->first);
  });
  primary_ahead_ = std::make_unique<Ahead>(Ahead{std::move(ticket), std::move(answer)});
}

void X11Selections::dropPrimaryAhead() {
  primary_ahead_.reset();
}

uint64_t X11Selections::clipboardChangeCount() {
  return reader().clipboardChanges();
}

ClipboardContents X11Selections::saveClipboard() {
  ClipboardContents contents;
  if (servingClipboard()) {
    last_saved_ = served_->targets;
    for (const ServedTarget& target : served_->targets)
      contents.push_back({target.target, target.bytes});
    return contents;
  }
  SavedClipboard saved;
  X11SelectionLimits limits = limits_;
  std::shared_ptr<bool> alive = alive_;
  worker().run(
      [&saved, limits](XSelectionReader& reader) { saved = SaveClipboardTargets(reader, limits); });
  if (!*alive) {
    // Destroyed while it waited: the caller still gets what was read.
    for (const ServedTarget& target : saved.targets)
      contents.push_back({target.target, target.bytes});
    return contents;
  }
  if (saved.cut_short)
    SparLog("clipboard: its owner stopped answering, %lu of %lu targets saved",
            saved.targets.size(), saved.offered);
  else if (saved.no_list)
    SparLog("clipboard: its owner gave no list of targets, nothing saved");
  last_saved_ = std::move(saved.targets);
  for (const ServedTarget& target : last_saved_)
    contents.push_back({target.target, target.bytes});
  return contents;
}

std::optional<std::string> X11Selections::clipboardText() {
  if (servingClipboard()) {
    for (const char* wanted : {"UTF8_STRING", "text/plain;charset=utf-8", "STRING"}) {
      for (const ServedTarget& target : served_->targets) {
        if (target.target != wanted)
          continue;
        if (std::optional<std::string> text = TextOf(target.type, target.format, target.bytes))
          return text;
      }
    }
    return std::nullopt;
  }
  return readText("CLIPBOARD");
}

void X11Selections::restoreClipboard(const ClipboardContents& contents) {
  std::vector<ServedTarget> targets;
  for (const SelectionTarget& item : contents) {
    // Meta targets are GTK's to answer; a name no kept file could carry is
    // no real target.
    if (item.target.empty() || item.target.size() > kKeptMaxNameLength ||
        item.target.find('\0') != std::string::npos || IsMetaTarget(item.target))
      continue;
    auto saved = std::find_if(last_saved_.begin(), last_saved_.end(), [&](const ServedTarget& s) {
      return s.target == item.target && s.bytes == item.bytes;
    });
    if (saved != last_saved_.end())
      targets.push_back(*saved);
    else
      targets.push_back({item.target, DefaultTypeFor(item.target), 8, item.bytes});
  }
  if (targets.empty()) {
    // Nothing to offer: nobody owns the CLIPBOARD afterwards.
    if (servingClipboard())
      gtk_clipboard_clear(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD));
    reader().disown("CLIPBOARD");
    served_.reset();
    return;
  }
  served_ = ServeClipboard(std::move(targets));
  if (!served_)
    SparLog("clipboard: could not take the clipboard to restore it");
}

bool X11Selections::sendCopyChord(CopyChord chord) {
  if (!reader().connected())
    return false;
  // A chord sent while the hotkey's keys are still down would reach the
  // application with them (Ctrl+Alt+C copies nothing).
  Clock::time_point deadline = Clock::now() + limits_.keys_up_wait;
  while (!reader().noKeyHeld()) {
    if (Clock::now() >= deadline) {
      SparLog("capture: keys still held, no copy chord sent");
      return false;
    }
    RunMainContextFor(std::chrono::milliseconds(10));
  }
  std::vector<unsigned long> keys{XK_Control_L};
  if (chord == CopyChord::kControlShiftC)
    keys.push_back(XK_Shift_L);
  keys.push_back(XK_c);
  return reader().sendChord(keys);
}

void X11Selections::pause(std::chrono::milliseconds duration) {
  RunMainContextFor(duration);
}

void X11Selections::keepClipboardAfterExit() {
  if (!servingClipboard()) {
    if (served_)
      SparLog("clipboard: another client took the clipboard before this process ended");
    return;
  }
  GtkClipboard* clipboard = gtk_clipboard_get(GDK_SELECTION_CLIPBOARD);
  if (reader().owner("CLIPBOARD_MANAGER") != 0) {
    gtk_clipboard_set_can_store(clipboard, nullptr, 0);
    gtk_clipboard_store(clipboard);
    SparLog("clipboard: handed to the clipboard manager");
    return;
  }
  KeptClipboard kept{served_->targets, reader().owner("CLIPBOARD"), limits_.keeper_lifetime};
  std::string folder = KeptClipboardFolder();
  g_mkdir_with_parents(folder.c_str(), 0700);
  std::string path = folder + "/" + kKeptClipboardPrefix + "XXXXXX";
  int fd = g_mkstemp_full(path.data(), O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) {
    SparLog("clipboard: could not write the kept clipboard in %@", folder);
    return;
  }
  std::string text = SerializeKeptClipboard(kept);
  size_t done = 0;
  while (done < text.size()) {
    ssize_t wrote = write(fd, text.data() + done, text.size() - done);
    if (wrote <= 0)
      break;
    done += size_t(wrote);
  }
  close(fd);
  if (done < text.size()) {
    unlink(path.c_str());
    SparLog("clipboard: could not write the kept clipboard in %@", folder);
    return;
  }
  std::string executable =
      limits_.keeper_executable.empty() ? OwnExecutable() : limits_.keeper_executable;
  const gchar* argv[] = {executable.c_str(), kKeepClipboardArgument, path.c_str(), nullptr};
  GError* error = nullptr;
  // Without DO_NOT_REAP_CHILD GLib starts the keeper through an intermediate
  // child, so it is nobody's zombie and we do not wait for it.
  if (!g_spawn_async(
          nullptr, const_cast<gchar**>(argv), nullptr,
          GSpawnFlags(G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL |
                      G_SPAWN_STDIN_FROM_DEV_NULL),
          [](gpointer) { setsid(); }, nullptr, nullptr, &error)) {
    SparLog("clipboard: could not start the background keeper (%@)", error->message);
    g_clear_error(&error);
    unlink(path.c_str());
    return;
  }
  // The keeper takes the CLIPBOARD from this process: waiting for that means
  // the user's clipboard is never without an owner between our exit and its
  // start, and nothing the old owner does meanwhile can lose it.
  Clock::time_point until = Clock::now() + kKeeperHandoverWait;
  while (servingClipboard() && Clock::now() < until)
    RunMainContextFor(std::chrono::milliseconds(20));
  if (servingClipboard())
    SparLog("clipboard: the background keeper did not take the clipboard in time");
}

} // namespace orvane
