#include "desktop/x11/X11Selections.h"

#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/x11/ClipboardServer.h"
#include "desktop/x11/XSelectionReader.h"

#include <X11/keysym.h>
#include <algorithm>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <thread>
#include <unistd.h>

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

std::string OwnExecutable() {
  gchar* link = g_file_read_link("/proc/self/exe", nullptr);
  std::string path = link ? link : "";
  g_free(link);
  return path;
}

} // namespace

X11Selections::X11Selections(X11SelectionLimits limits) : limits_(std::move(limits)) {}

X11Selections::~X11Selections() = default;

XSelectionReader& X11Selections::reader() {
  if (!reader_)
    reader_ = std::make_unique<XSelectionReader>();
  return *reader_;
}

bool X11Selections::servingClipboard() const {
  return served_ && served_->owned;
}

bool X11Selections::ownedByThisProcess(unsigned long owner) {
  return reader().pidOfWindow(owner) == int(getpid());
}

std::optional<int> X11Selections::primaryOwnerPid() {
  return reader().pidOfWindow(reader().owner("PRIMARY"));
}

std::optional<std::string> X11Selections::readText(const char* selection) {
  unsigned long owner = reader().owner(selection);
  // Asking ourselves would wait for a main loop that is blocked right here.
  if (owner == 0 || ownedByThisProcess(owner))
    return std::nullopt;
  // One deadline for both tries: an owner that never answers costs it once.
  Clock::time_point deadline = Clock::now() + limits_.read_timeout;
  for (const char* target : {"UTF8_STRING", "STRING"}) {
    std::optional<SelectionAnswer> answer =
        reader().convert(selection, target, deadline, limits_.max_clipboard_bytes);
    if (answer) {
      if (std::optional<std::string> text = TextOf(answer->type, answer->format, answer->bytes))
        return text;
    }
    if (Clock::now() >= deadline)
      break;
  }
  return std::nullopt;
}

std::optional<std::string> X11Selections::primaryText() {
  return readText("PRIMARY");
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
  last_saved_.clear();
  unsigned long owner = reader().owner("CLIPBOARD");
  if (owner == 0)
    return contents;
  if (ownedByThisProcess(owner)) {
    SparLog("clipboard: held by this program outside a restore, not saved");
    return contents;
  }
  Clock::time_point end = Clock::now() + limits_.save_budget;
  auto next_deadline = [&] { return std::min(end, Clock::now() + limits_.read_timeout); };
  std::optional<std::vector<std::string>> names = reader().targets("CLIPBOARD", next_deadline());
  if (!names)
    return contents;
  size_t room = limits_.max_clipboard_bytes;
  for (const std::string& name : *names) {
    if (IsMetaTarget(name))
      continue;
    if (Clock::now() >= end)
      break;
    std::optional<SelectionAnswer> answer =
        reader().convert("CLIPBOARD", name, next_deadline(), room);
    if (!answer)
      continue;
    room -= answer->bytes.size();
    last_saved_.push_back({name, answer->type, answer->format, answer->bytes});
    contents.push_back({name, std::move(answer->bytes)});
  }
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
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::vector<unsigned long> keys{XK_Control_L};
  if (chord == CopyChord::kControlShiftC)
    keys.push_back(XK_Shift_L);
  keys.push_back(XK_c);
  return reader().sendChord(keys);
}

void X11Selections::pause(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}

void X11Selections::keepClipboardAfterExit() {
  if (!servingClipboard())
    return;
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
  }
}

} // namespace orvane
