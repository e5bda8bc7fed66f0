#include "library/PdfStore.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "library/LibraryFolder.h"
#include "library/PdfFiles.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

std::string SanitisedAccount(const std::string& name) {
  std::string kept;
  for (char c : name) {
    // Only ASCII letters fold; every other byte (and so every non-ASCII
    // character) is dropped unless it is in the allowed set.
    char lower = (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
    if ((lower >= 'a' && lower <= 'z') || (lower >= '0' && lower <= '9') || lower == '.' ||
        lower == '_' || lower == '-')
      kept += lower;
  }
  // Nothing left, or only dots ("." and ".." name the folder itself or the
  // one above): the account folder must be a child of the library folder.
  if (kept.find_first_not_of('.') == std::string::npos)
    return "default";
  return kept;
}

namespace {
// One name that stays inside the folder it is joined to.
bool IsChildName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos && name.find_first_not_of('.') != std::string::npos;
}
} // namespace

PdfStore::PdfStore(Scheduler& scheduler)
    : scheduler_(scheduler),
      watch_(scheduler, [this](const std::vector<FolderEvent>& batch) { storeEvents(batch); }) {}

PdfStore::~PdfStore() {
  for (const auto& [path, timer] : settle_)
    scheduler_.cancel(timer);
}

void PdfStore::setAccount(const std::string& name) {
  std::string account = SanitisedAccount(name);
  g_assert(IsChildName(account));
  if (account_ && *account_ == account)
    return;
  account_ = account;
  std::string path = folder();
  g_mkdir_with_parents(path.c_str(), 0755);
  startWatching();
  SparLog("pdfs: folder %@", path);
}

std::string PdfStore::folder() const {
  // Every path of the library is derived from here: it must stay below the
  // library folder, one level down.
  g_assert(!account_ || IsChildName(*account_));
  return JoinPath(LibraryFolder(), account_.value_or(""));
}

std::string PdfStore::pathFor(const std::string& paper_id) const {
  std::string name = paper_id;
  for (char& c : name)
    if (c == '/')
      c = '_';
  return JoinPath(folder(), name + ".pdf");
}

std::string PdfStore::sidecarFor(const std::string& pdf_path) {
  size_t slash = pdf_path.rfind('/');
  std::string dir = slash == std::string::npos ? "" : pdf_path.substr(0, slash + 1);
  return dir + "." + FileName(pdf_path) + ".synced";
}

std::optional<nlohmann::json> ParseSidecar(std::string_view text) {
  if (text.size() > kMaxSidecarBytes)
    return std::nullopt;
  nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object())
    return std::nullopt;
  return json;
}

namespace {
// A sidecar read in one go: its parsed contents and its own time, from one
// open file, so that a scan of thousands of PDFs stays close to the cost of
// merely looking at them.
struct SidecarRecord {
  bool exists = false;
  double mtime = 0;
  std::optional<nlohmann::json> json;
};

// A sidecar is a regular file of at most kMaxSidecarBytes; anything else
// under its name is no sidecar.
bool IsSidecarFile(const struct stat& info) {
  return S_ISREG(info.st_mode) && info.st_size <= off_t(kMaxSidecarBytes);
}

SidecarRecord ReadSidecar(const std::string& sidecar) {
  SidecarRecord record;
  struct stat info;
  int fd = OpenLibraryFile(sidecar, info);
  if (fd < 0)
    return record;
  if (IsSidecarFile(info)) {
    record.exists = true;
    record.mtime = ModificationTime(info);
    std::string text(size_t(info.st_size), '\0');
    ssize_t length = info.st_size > 0 ? pread(fd, text.data(), text.size(), 0) : 0;
    if (length >= 0) {
      text.resize(size_t(length));
      record.json = ParseSidecar(text);
    }
  }
  close(fd);
  return record;
}

bool EditedSince(const std::string& pdf_path, bool sidecar_exists, double sidecar_mtime) {
  if (!sidecar_exists || !(sidecar_mtime > 0))
    return false;
  return MTime(pdf_path) > sidecar_mtime + kEditTolerance;
}
} // namespace

std::optional<nlohmann::json> PdfStore::sidecarAt(const std::string& pdf_path) {
  return ReadSidecar(sidecarFor(pdf_path)).json;
}

std::optional<std::string> PdfStore::sidecarString(const nlohmann::json& sidecar, const char* key) {
  if (!sidecar.is_object())
    return std::nullopt;
  auto found = sidecar.find(key);
  if (found == sidecar.end() || !found->is_string())
    return std::nullopt;
  return found->get<std::string>();
}

namespace {
std::optional<std::string> SidecarString(const std::optional<nlohmann::json>& sidecar,
                                         const char* key) {
  return sidecar ? PdfStore::sidecarString(*sidecar, key) : std::nullopt;
}
} // namespace

void PdfStore::markSynced(const std::string& pdf_path, const std::string& paper_id,
                          const std::optional<std::string>& etag, double mtime) {
  nlohmann::json record = {{"id", paper_id}, {"etag", etag.value_or("")}};
  std::string text = record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  // A sidecar too large to be read back would hide the PDF from edit
  // detection for good: such a write fails like any other, changing nothing.
  if (text.size() > kMaxSidecarBytes)
    return;
  WriteFileAtomically(sidecarFor(pdf_path), text, mtime);
}

bool PdfStore::hasUnsyncedEdits(const std::string& pdf_path) {
  std::string sidecar = sidecarFor(pdf_path);
  struct stat info;
  if (lstat(sidecar.c_str(), &info) != 0 || !IsSidecarFile(info))
    return false;
  return EditedSince(pdf_path, true, ModificationTime(info));
}

bool PdfStore::paperIdFits(const std::string& paper_id) const {
  std::string pdf = pathFor(paper_id);
  std::string pdf_name = FileName(pdf);
  size_t longest = std::max(FileName(sidecarFor(pdf)).size() + strlen(kAtomicWriteSuffix),
                            1 + pdf_name.size() + strlen(kDownloadTemporarySuffix));
  long limit = pathconf(folder().c_str(), _PC_NAME_MAX);
  return longest <= size_t(limit > 0 ? limit : NAME_MAX);
}

// Watching ------------------------------------------------------------------

void PdfStore::startWatching() {
  if (!account_)
    return;
  std::string path = folder();
  g_mkdir_with_parents(path.c_str(), 0755);
  removeStaleDownloads(path);
  watch_.stop();
  watching_ = watch_.start(path, LibraryFolder());
  if (!watching_)
    SparLog("pdfs: could not watch %@", path);
}

void PdfStore::storeEvents(const std::vector<FolderEvent>& batch) {
  for (const FolderEvent& event : batch) {
    if (event.events_lost) {
      // Which files changed is not known any more: look at all of them.
      SparLog("pdfs: watch overflowed — rescanning");
      rescan();
      continue;
    }
    if (event.root_changed) {
      SparLog("pdfs: folder moved — now %@", folder());
      startWatching();
      continue;
    }
    fileTouched(event.path);
  }
}

void PdfStore::fileTouched(const std::string& path) {
  if (LowerExtension(path) != "pdf")
    return;
  auto id = SidecarString(sidecarAt(path), "id");
  if (id && busy_.count(*id))
    return;
  auto pending = settle_.find(path);
  if (pending != settle_.end())
    scheduler_.cancel(pending->second);
  settle_[path] = scheduler_.after(kSettleDelay, [this, path] { settled(path); });
}

void PdfStore::settled(const std::string& path) {
  settle_.erase(path);
  auto id = SidecarString(sidecarAt(path), "id");
  if (!id)
    return;
  if (busy_.count(*id) || !hasUnsyncedEdits(path))
    return;
  if (!CompletePdf(path)) {
    SparLog("pdfs: %@ not a complete PDF yet", FileName(path));
    return;
  }
  SparLog("pdfs: %@ edited (mtime %.0f > sidecar %.0f)", FileName(path), MTime(path),
          MTime(sidecarFor(path)));
  reportChange(*id, path);
}

void PdfStore::reportChange(const std::string& id, const std::string& path) {
  if (on_change_)
    on_change_(id, FileSize(path), MTime(path));
}

void PdfStore::rescan() {
  std::string path = folder();
  DIR* dir = opendir(path.c_str());
  if (!dir)
    return;
  while (struct dirent* entry = readdir(dir)) {
    // A link, a FIFO or a folder is no library file; most file systems tell
    // so in the entry itself, at no cost.
    if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN)
      continue;
    const char* name = entry->d_name;
    if (LowerExtension(name) != "pdf")
      continue;
    std::string pdf = JoinPath(path, name);
    SidecarRecord sidecar = ReadSidecar(sidecarFor(pdf));
    auto id = SidecarString(sidecar.json, "id");
    if (!id || busy_.count(*id))
      continue;
    if (EditedSince(pdf, sidecar.exists, sidecar.mtime) && CompletePdf(pdf)) {
      SparLog("pdfs: %@ has unsynced edits from earlier", std::string(name));
      reportChange(*id, pdf);
    }
  }
  closedir(dir);
}

} // namespace orvane
