#include "library/DockDrops.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"
#include "library/PdfFiles.h"

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
    send_event_({{"type", "dockDrop"}, {"token", token}, {"name", name}, {"size", FileSize(path)}});
  }
}

std::optional<std::string> DockDrops::path(const std::string& token) const {
  auto found = drops_.find(token);
  if (found == drops_.end())
    return std::nullopt;
  return found->second;
}

} // namespace orvane
