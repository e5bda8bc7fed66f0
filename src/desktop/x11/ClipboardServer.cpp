#include "desktop/x11/ClipboardServer.h"

#include "base/BuildInfo.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "desktop/x11/XSelectionReader.h"

#include <cstring>
#include <fcntl.h>
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

namespace {

using Holder = std::shared_ptr<ServedClipboard>;

// Answers one request from the served bytes. Format 32 travels through GTK
// as longs, and the items of an ATOM list as GDK's own atoms.
void AnswerRequest(GtkClipboard* clipboard, GtkSelectionData* data, guint index, gpointer user) {
  const ServedClipboard& served = **static_cast<Holder*>(user);
  if (index >= served.targets.size())
    return;
  const ServedTarget& target = served.targets[index];
  GdkAtom type = gdk_atom_intern(target.type.c_str(), FALSE);
  const auto* raw = reinterpret_cast<const guchar*>(target.bytes.data());
  if (target.format != 32) {
    gtk_selection_data_set(data, type, target.format, raw, int(target.bytes.size()));
    return;
  }
  size_t items = target.bytes.size() / 4;
  bool atoms = target.type == "ATOM" || target.type == "ATOM_PAIR";
  GdkDisplay* display = gtk_clipboard_get_display(clipboard);
  std::vector<long> longs(items);
  for (size_t i = 0; i < items; ++i) {
    uint32_t value = 0;
    memcpy(&value, raw + i * 4, 4);
    if (atoms && GDK_IS_X11_DISPLAY(display)) {
      GdkAtom atom = gdk_x11_xatom_to_atom_for_display(display, Atom(value));
      memcpy(&longs[i], &atom, sizeof(long));
    } else {
      longs[i] = long(value);
    }
  }
  gtk_selection_data_set(data, type, 32, reinterpret_cast<const guchar*>(longs.data()),
                         int(items * sizeof(long)));
}

void ClipboardLost(GtkClipboard*, gpointer user) {
  auto* holder = static_cast<Holder*>(user);
  Holder served = *holder;
  delete holder;
  served->owned = false;
  if (served->on_lost)
    served->on_lost();
}

// Reads the keeper's file, refusing anything that is not ours to read.
bool ReadKeptFile(const std::string& path, std::string* text, std::string* why) {
  gchar* folder = g_path_get_dirname(path.c_str());
  gchar* base = g_path_get_basename(path.c_str());
  char* real_folder = realpath(folder, nullptr);
  char* expected = realpath(KeptClipboardFolder().c_str(), nullptr);
  bool placed = real_folder && expected && strcmp(real_folder, expected) == 0 &&
                g_str_has_prefix(base, kKeptClipboardPrefix);
  free(real_folder);
  free(expected);
  g_free(folder);
  g_free(base);
  if (!placed) {
    *why = "not in the keeper's folder";
    return false;
  }
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *why = "cannot be opened";
    return false;
  }
  struct stat info;
  // The largest well-formed file: every byte plus every target's header.
  const off_t largest =
      off_t(kKeptMaxBytes + kKeptMaxTargets * (2 * kKeptMaxNameLength + 128) + 256);
  bool ok = fstat(fd, &info) == 0;
  if (!ok || !S_ISREG(info.st_mode))
    *why = "not a regular file";
  else if (info.st_uid != geteuid() || (info.st_mode & 077) != 0)
    *why = "not private to this user";
  else if (info.st_size > largest)
    *why = "too large";
  else {
    text->resize(size_t(info.st_size));
    size_t done = 0;
    while (done < text->size()) {
      ssize_t got = read(fd, text->data() + done, text->size() - done);
      if (got <= 0)
        break;
      done += size_t(got);
    }
    text->resize(done);
    unlink(path.c_str());
    close(fd);
    return true;
  }
  close(fd);
  return false;
}

} // namespace

std::shared_ptr<ServedClipboard> ServeClipboard(std::vector<ServedTarget> targets) {
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return nullptr;
  GtkClipboard* clipboard = gtk_clipboard_get_for_display(display, GDK_SELECTION_CLIPBOARD);
  auto served = std::make_shared<ServedClipboard>();
  served->targets = std::move(targets);
  std::vector<GtkTargetEntry> entries;
  for (size_t i = 0; i < served->targets.size(); ++i)
    entries.push_back({const_cast<gchar*>(served->targets[i].target.c_str()), 0, guint(i)});
  auto* holder = new Holder(served);
  // The old owner's clear callback (ours included) runs inside this call.
  if (!gtk_clipboard_set_with_data(clipboard, entries.data(), guint(entries.size()), &AnswerRequest,
                                   &ClipboardLost, holder)) {
    delete holder;
    return nullptr;
  }
  served->owned = true;
  return served;
}

std::string KeptClipboardFolder() {
  return JoinPath(CacheFolder(), kApplicationId);
}

int RunClipboardKeeper(const std::string& path) {
  std::string text, why;
  if (!ReadKeptFile(path, &text, &why)) {
    SparLog("clipboard: refused the kept clipboard %@ (%@)", path, why);
    return 1;
  }
  std::optional<KeptClipboard> kept = ParseKeptClipboard(text, &why);
  if (!kept) {
    SparLog("clipboard: refused the kept clipboard %@ (%@)", path, why);
    return 1;
  }
  if (!gtk_init_check(nullptr, nullptr)) {
    SparLog("clipboard: the keeper has no display");
    return 1;
  }
  // Another client that took the CLIPBOARD since the hand-over holds
  // something newer than ours.
  {
    XSelectionReader reader;
    unsigned long owner = reader.owner("CLIPBOARD");
    if (owner != 0 && owner != kept->owner_window) {
      SparLog("clipboard: another client took the clipboard before the keeper started");
      return 0;
    }
  }
  std::shared_ptr<ServedClipboard> served = ServeClipboard(kept->targets);
  if (!served) {
    SparLog("clipboard: the keeper could not take the clipboard");
    return 1;
  }
  SparLog("clipboard: kept by a background process for %d s",
          int(std::chrono::duration_cast<std::chrono::seconds>(kept->lifetime).count()));
  struct Wait {
    GMainLoop* loop;
    bool time_up = false;
  } wait{g_main_loop_new(nullptr, FALSE)};
  GMainLoop* loop = wait.loop;
  served->on_lost = [loop] { g_main_loop_quit(loop); };
  guint timer = g_timeout_add(
      guint(kept->lifetime.count()),
      [](gpointer data) -> gboolean {
        auto* w = static_cast<Wait*>(data);
        w->time_up = true;
        g_main_loop_quit(w->loop);
        return G_SOURCE_REMOVE;
      },
      &wait);
  g_source_set_name_by_id(timer, "[orvane] clipboard keeper lifetime");
  g_main_loop_run(loop);
  served->on_lost = nullptr;
  if (!wait.time_up)
    g_source_remove(timer);
  if (served->owned)
    SparLog("clipboard: the background keeper ends, its time is up");
  else
    SparLog("clipboard: the background keeper stepped aside for a new copy");
  g_main_loop_unref(loop);
  return 0;
}

} // namespace orvane
