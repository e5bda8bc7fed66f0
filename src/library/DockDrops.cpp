#include "library/DockDrops.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"
#include "library/PdfFiles.h"

#include <sys/stat.h>

namespace orvane {

std::string NewUpperCaseUuid() {
  GCharPtr uuid(g_uuid_string_random());
  std::string text = uuid.str();
  for (char& c : text)
    c = g_ascii_toupper(c);
  return text;
}

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
