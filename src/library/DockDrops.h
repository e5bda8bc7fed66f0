// PDFs given to the program from outside (its command line, a second
// start's, or files dropped on the library window) are announced to the
// page, which may ask to upload them into the user's inbox.
#pragma once

#include "bridge/Event.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

class DockDrops {
public:
  using SendEvent = std::function<void(const Event&)>;
  explicit DockDrops(SendEvent send_event) : send_event_(std::move(send_event)) {}

  // Announces every PDF among the paths with a "dockDrop" event and a fresh
  // token; other files are skipped silently.
  void openFiles(const std::vector<std::string>& paths);

  // The file a token names; a token is good for one upload.
  std::optional<std::string> path(const std::string& token) const;
  void forget(const std::string& token) { drops_.erase(token); }
  size_t size() const { return drops_.size(); }

private:
  SendEvent send_event_;
  std::map<std::string, std::string> drops_;
};

} // namespace orvane
