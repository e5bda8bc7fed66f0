// The local PDF library: the signed-in account and its folder, the PDFs and
// their sidecars, the watch for edits made in other applications, and the
// transfers to and from the site's storage. Main thread only.
#pragma once

#include "desktop/Scheduler.h"
#include "library/FolderWatch.h"
#include "library/HttpTransfer.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

inline constexpr double kSettleDelay = 2.0;
inline constexpr double kDownloadCoolDown = 2.5;
inline constexpr double kEditTolerance = 0.5;
inline constexpr unsigned kUploadTimeout = 300;
// A download is written beside its PDF under "." + the PDF's name + this
// suffix, and renamed over the PDF when whole.
inline constexpr char kDownloadTemporarySuffix[] = ".download-XXXXXX";

class PdfStore {
public:
  // A locally edited PDF: paper id, size in bytes, modification time.
  using ChangeCallback = std::function<void(const std::string& id, int64_t size, double mtime)>;
  // Exactly one of path and error is set.
  using LocalCompletion =
      std::function<void(std::optional<std::string> path, std::optional<std::string> error)>;
  using UploadCompletion =
      std::function<void(bool ok, std::optional<std::string> error, double mtime)>;

  explicit PdfStore(Scheduler& scheduler);
  ~PdfStore();
  PdfStore(const PdfStore&) = delete;
  PdfStore& operator=(const PdfStore&) = delete;

  // nullopt until the first page says hello.
  const std::optional<std::string>& account() const { return account_; }
  // Sets the account subfolder from the name a page gave; see SanitisedAccount.
  void setAccount(const std::string& name);
  // The library folder joined with the account.
  std::string folder() const;

  // Files and sidecars.
  std::string pathFor(const std::string& paper_id) const;
  static std::string sidecarFor(const std::string& pdf_path);
  static std::optional<nlohmann::json> sidecarAt(const std::string& pdf_path);
  // A member of a sidecar when it is a string; absent otherwise.
  static std::optional<std::string> sidecarString(const nlohmann::json& sidecar, const char* key);
  static void markSynced(const std::string& pdf_path, const std::string& paper_id,
                         const std::optional<std::string>& etag, double mtime);
  static bool hasUnsyncedEdits(const std::string& pdf_path);
  // Whether every file the library makes for the paper (its PDF, its
  // sidecar, and their temporary files while they are written) has a name
  // the account folder's file system can hold.
  bool paperIdFits(const std::string& paper_id) const;

  // Watching.
  void setOnChange(ChangeCallback callback) { on_change_ = std::move(callback); }
  void startWatching();
  void storeEvents(const std::vector<FolderEvent>& batch);
  void fileTouched(const std::string& path);
  void settled(const std::string& path);
  void rescan();
  bool isWatching() const { return watching_; }

  // Transfers.
  void ensureLocal(const std::string& paper_id, const std::optional<std::string>& url,
                   const std::optional<std::string>& etag, LocalCompletion completion);
  void upload(const std::string& paper_id, const std::string& url, UploadCompletion completion);
  // How long a download or an upload may go without a byte moving before it
  // fails (60 s and 300 s unless changed).
  void setIdleTimeouts(unsigned download_seconds, unsigned upload_seconds);

  const std::set<std::string>& busy() const { return busy_; }
  std::set<std::string>& busy() { return busy_; }
  size_t pendingSettles() const { return settle_.size(); }

private:
  void reportChange(const std::string& id, const std::string& path);
  void finishDownload(const std::string& paper_id, const std::string& path, const std::string& temp,
                      const std::optional<std::string>& etag, std::optional<std::string> error,
                      LocalCompletion completion);
  // Deletes temporary files that downloads of an earlier run left in the folder.
  void removeStaleDownloads(const std::string& folder);

  Scheduler& scheduler_;
  std::optional<std::string> account_;
  ChangeCallback on_change_;
  std::set<std::string> busy_;
  std::map<std::string, Scheduler::TimerId> settle_;
  FolderWatch watch_;
  bool watching_ = false;
  unsigned download_idle_timeout_ = kDownloadIdleTimeout;
  unsigned upload_idle_timeout_ = kUploadTimeout;
  std::set<std::string> temporaries_; // the temporary files of downloads under way
};

// The most a sidecar may hold; anything longer is no sidecar.
inline constexpr size_t kMaxSidecarBytes = 64 * 1024;
// A sidecar's contents: a JSON object, or nothing.
std::optional<nlohmann::json> ParseSidecar(std::string_view text);

// Lower-cased, reduced to "a-z0-9._-", "default" when nothing but dots is
// left, so that the account folder is always a child of the library folder.
std::string SanitisedAccount(const std::string& name);

} // namespace orvane
