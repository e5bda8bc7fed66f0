// Bringing a paper's PDF into the account folder, and sending an edited one
// back. Local edits always win: a PDF with unsynced edits is never replaced
// by a download, and a download replaces the old file in one rename, so a
// failed or cut transfer leaves the old file whole.
#include "library/HttpTransfer.h"
#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "base/Paths.h"
#include "base/SparLog.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

namespace {
constexpr char kNotCompletePdf[] = "the download is not a complete PDF";

// Downloads go to "." + the PDF's name + kDownloadTemporarySuffix beside the
// PDF: hidden, and with an extension that is not "pdf", so the folder watch
// ignores them.
std::string TemporaryBeside(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string folder = path.substr(0, slash + 1);
  std::string pattern = folder + "." + FileName(path) + kDownloadTemporarySuffix;
  int fd = g_mkstemp_full(pattern.data(), O_WRONLY | O_CLOEXEC, 0644);
  if (fd >= 0)
    close(fd);
  return fd >= 0 ? pattern : std::string();
}

// Whether a name is one TemporaryBeside makes: ".<name>.pdf.download-"
// followed by the letters and digits that mkstemp put for the X's.
bool IsDownloadTemporary(std::string_view name) {
  constexpr std::string_view suffix = kDownloadTemporarySuffix;
  const size_t unique = suffix.size() - suffix.find_last_not_of('X') - 1;
  const std::string tail = ".pdf" + std::string(suffix.substr(0, suffix.size() - unique));
  if (name.size() <= 1 + tail.size() + unique || name[0] != '.')
    return false;
  for (char c : name.substr(name.size() - unique))
    if (!g_ascii_isalnum(c))
      return false;
  std::string_view rest = name.substr(0, name.size() - unique);
  return rest.substr(rest.size() - tail.size()) == tail;
}
} // namespace

void PdfStore::removeStaleDownloads(const std::string& folder) {
  GDir* dir = g_dir_open(folder.c_str(), 0, nullptr);
  if (!dir)
    return;
  while (const char* name = g_dir_read_name(dir)) {
    if (!IsDownloadTemporary(name))
      continue;
    std::string path = JoinPath(folder, name);
    struct stat info;
    // Only files are ever left behind; downloads of this run keep theirs.
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || temporaries_.count(path))
      continue;
    if (g_unlink(path.c_str()) == 0)
      SparLog("pdfs: removed %@ left by an earlier download", std::string(name));
  }
  g_dir_close(dir);
}

void PdfStore::setIdleTimeouts(unsigned download_seconds, unsigned upload_seconds) {
  download_idle_timeout_ = download_seconds;
  upload_idle_timeout_ = upload_seconds;
}

void PdfStore::ensureLocal(const std::string& paper_id, const std::optional<std::string>& url,
                           const std::optional<std::string>& etag, LocalCompletion completion) {
  std::string path = pathFor(paper_id);
  if (FileExists(path)) {
    if (hasUnsyncedEdits(path)) {
      SparLog("pdfs: %@ has local edits, keeping them", paper_id);
      if (CompletePdf(path))
        reportChange(paper_id, path);
      completion(path, std::nullopt);
      return;
    }
    std::string local = [&] {
      auto sidecar = sidecarAt(path);
      if (sidecar) {
        auto found = sidecar->find("etag");
        if (found != sidecar->end() && found->is_string())
          return found->get<std::string>();
      }
      return std::string();
    }();
    if (!etag || etag->empty() || *etag == local) {
      completion(path, std::nullopt);
      return;
    }
    SparLog("pdfs: %@ is version %@, bucket has %@ — refreshing", paper_id, local, *etag);
  }
  if (!url || url->empty()) {
    completion(std::nullopt, std::string("No PDF to fetch"));
    return;
  }
  if (busy_.count(paper_id)) {
    completion(std::nullopt, std::string("Still fetching"));
    return;
  }
  busy_.insert(paper_id);
  SparLog("pdfs: downloading %@", paper_id);
  std::string temp = TemporaryBeside(path);
  if (!temp.empty())
    temporaries_.insert(temp);
  if (temp.empty()) {
    finishDownload(paper_id, path, temp, etag, std::string(g_strerror(errno)),
                   std::move(completion));
    return;
  }
  DownloadToFile(
      *url, temp,
      [this, paper_id, path, temp, etag,
       completion = std::move(completion)](TransferResult result) mutable {
        std::optional<std::string> error = result.error;
        if (result.cut_short)
          error = kNotCompletePdf;
        else if (!error && result.status != 200)
          error = "HTTP " + std::to_string(result.status);
        finishDownload(paper_id, path, temp, etag, std::move(error), std::move(completion));
      },
      download_idle_timeout_);
}

void PdfStore::finishDownload(const std::string& paper_id, const std::string& path,
                              const std::string& temp, const std::optional<std::string>& etag,
                              std::optional<std::string> error, LocalCompletion completion) {
  temporaries_.erase(temp);
  bool kept_edits = false;
  if (!error && !CompletePdf(temp)) {
    // An error page, an empty answer or a cut file: the old copy stays.
    error = kNotCompletePdf;
  } else if (!error && FileExists(path) && hasUnsyncedEdits(path)) {
    // The user saved an edit while the download ran: the edit wins.
    kept_edits = true;
  } else if (!error) {
    chmod(temp.c_str(), 0644);
    if (rename(temp.c_str(), path.c_str()) != 0)
      error = g_strerror(errno);
  }
  if (!temp.empty() && (error || kept_edits))
    g_unlink(temp.c_str());

  if (kept_edits) {
    SparLog("pdfs: %@ has local edits, keeping them", paper_id);
    if (CompletePdf(path))
      reportChange(paper_id, path);
  } else if (error) {
    SparLog("pdfs: download of %@ failed: %@", paper_id, *error);
  } else {
    markSynced(path, paper_id, etag.value_or(""), MTime(path));
    SparLog("pdfs: %@ saved (%lld bytes)", paper_id, static_cast<long long>(FileSize(path)));
  }
  scheduler_.after(kDownloadCoolDown, [this, paper_id] { busy_.erase(paper_id); });
  if (error)
    completion(std::nullopt, std::move(error));
  else
    completion(path, std::nullopt);
}

void PdfStore::upload(const std::string& paper_id, const std::string& url,
                      UploadCompletion completion) {
  std::string path = pathFor(paper_id);
  if (!FileExists(path)) {
    completion(false, std::string("No local file"), 0);
    return;
  }
  double mtime = MTime(path);
  busy_.insert(paper_id);
  UploadRequest request;
  request.url = url;
  request.file = path;
  request.headers = {{"x-upsert", "true"}};
  request.timeout_seconds = upload_idle_timeout_;
  SparLog("pdfs: uploading %@ (%lld bytes)", paper_id, static_cast<long long>(FileSize(path)));
  UploadFromFile(
      request, [this, paper_id, mtime, completion = std::move(completion)](TransferResult result) {
        bool ok = !result.error && result.status >= 200 && result.status <= 299;
        std::optional<std::string> error;
        if (result.error)
          error = result.error;
        else if (!ok)
          error = "HTTP " + std::to_string(result.status) + ": " +
                  (g_utf8_validate(result.body.data(), gssize(result.body.size()), nullptr)
                       ? result.body
                       : std::string());
        SparLog("pdfs: upload of %@ %@", paper_id, ok ? std::string("done") : *error);
        busy_.erase(paper_id);
        completion(ok, error, mtime);
      });
}

} // namespace orvane
