#include "library/PdfStore.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "library/LibraryFolder.h"
#include "library/PdfFiles.h"

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
  return kept.empty() ? "default" : kept;
}

bool IsUsablePaperId(const std::string& paper_id) {
  return !paper_id.empty() && paper_id.find('\0') == std::string::npos;
}

PdfStore::PdfStore(Scheduler& scheduler)
    : scheduler_(scheduler),
      watch_(scheduler, [this](const std::vector<FolderEvent>& batch) { storeEvents(batch); }) {}

PdfStore::~PdfStore() {
  for (const auto& [path, timer] : settle_)
    scheduler_.cancel(timer);
}

void PdfStore::setAccount(const std::string& name) {
  std::string account = SanitisedAccount(name);
  if (account_ && *account_ == account)
    return;
  account_ = account;
  std::string path = folder();
  g_mkdir_with_parents(path.c_str(), 0755);
  startWatching();
  SparLog("pdfs: folder %@", path);
}

std::string PdfStore::folder() const {
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

namespace {
// A sidecar read in one go: its parsed contents and its own time, from one
// open file, so that a scan of thousands of PDFs stays close to the cost of
// merely looking at them.
struct SidecarRecord {
  bool exists = false;
  double mtime = 0;
  std::optional<nlohmann::json> json;
};

SidecarRecord ReadSidecar(const std::string& sidecar) {
  SidecarRecord record;
  int fd = open(sidecar.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return record;
  struct stat info;
  if (fstat(fd, &info) == 0) {
    record.exists = true;
    record.mtime = double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
    std::string text(size_t(info.st_size), '\0');
    ssize_t length = info.st_size > 0 ? pread(fd, text.data(), text.size(), 0) : 0;
    if (length >= 0) {
      text.resize(size_t(length));
      nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
      if (json.is_object())
        record.json = std::move(json);
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

namespace {
std::optional<std::string> SidecarString(const std::optional<nlohmann::json>& sidecar,
                                         const char* key) {
  if (!sidecar)
    return std::nullopt;
  auto found = sidecar->find(key);
  if (found == sidecar->end() || !found->is_string())
    return std::nullopt;
  return found->get<std::string>();
}
} // namespace

void PdfStore::markSynced(const std::string& pdf_path, const std::string& paper_id,
                          const std::optional<std::string>& etag, double mtime) {
  std::string sidecar = sidecarFor(pdf_path);
  nlohmann::json record = {{"id", paper_id}, {"etag", etag.value_or("")}};
  WriteFileAtomically(sidecar,
                      record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  SetMTime(sidecar, mtime);
}

bool PdfStore::hasUnsyncedEdits(const std::string& pdf_path) {
  std::string sidecar = sidecarFor(pdf_path);
  struct stat info;
  if (stat(sidecar.c_str(), &info) != 0)
    return false;
  return EditedSince(pdf_path, true,
                     double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9);
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
  GDir* dir = g_dir_open(path.c_str(), 0, nullptr);
  if (!dir)
    return;
  while (const char* name = g_dir_read_name(dir)) {
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
  g_dir_close(dir);
}

} // namespace orvane
