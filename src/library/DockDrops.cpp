#include "library/DockDrops.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "library/PdfFiles.h"

#include <sys/stat.h>

namespace orvane {

void DockDrops::openFiles(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    if (LowerExtension(path) != "pdf")
      continue;
    std::string token = NewUpperCaseUuid();
    drops_[token] = path;
    std::string name = FileName(path);
    SparLog("dock drop: %@", name);
    // A dropped file may live anywhere, behind a link too; FileSize speaks
    // only of the library's own files.
    struct stat info;
    int64_t size = stat(path.c_str(), &info) == 0 ? int64_t(info.st_size) : 0;
    send_event_({{"type", "dockDrop"}, {"token", token}, {"name", name}, {"size", size}});
  }
}

std::optional<std::string> DockDrops::path(const std::string& token) const {
  auto found = drops_.find(token);
  if (found == drops_.end())
    return std::nullopt;
  return found->second;
}

} // namespace orvane
