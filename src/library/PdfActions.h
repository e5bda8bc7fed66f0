// The library's first look at every page message: the sign-in greeting and
// the actions on local PDFs, plus the agent's actions, which it hands on.
#pragma once

#include "bridge/Event.h"
#include "bridge/Page.h"
#include "library/DockDrops.h"
#include "library/PdfStore.h"

#include <functional>
#include <optional>
#include <string>

namespace orvane {

// What the PDF actions need from the desktop and the rest of the program.
class PdfActionHost {
public:
  virtual ~PdfActionHost() = default;
  virtual void helloFrom(const PageRef& from, const std::string& account) = 0;
  virtual void sendEvent(const Event& event) = 0;
  virtual void openInPreview(const std::string& path) = 0;
  virtual void revealInFileManager(const std::string& path) = 0;
  virtual void beginFileDrag(const std::string& path, const PageRef& page) = 0;
  virtual void runClaude(const nlohmann::json& body) = 0;
  virtual void stopClaude(const nlohmann::json& body) = 0;
  // Replaces the running copy with the one in the archive at this address.
  virtual void updateFrom(const std::string& address) = 0;
};

class PdfActions {
public:
  PdfActions(PdfStore& store, DockDrops& dock_drops, PdfActionHost& host);

  // True when the action was handled here (also when a missing field made it
  // do nothing); false sends it on to the dispatcher's own table. Only
  // "hello" is accepted before sign-in.
  bool handlePdfAction(const std::optional<std::string>& action, const nlohmann::json& body,
                       const PageRef& from);

private:
  void makeLocal(const std::string& action, const std::string& paper_id,
                 const std::optional<std::string>& url, const std::optional<std::string>& etag);
  void dragPdf(const std::string& paper_id, const PageRef& from);
  void uploadFile(const std::string& paper_id, const nlohmann::json& body);
  void markSynced(const std::string& paper_id, const nlohmann::json& body);
  void inboxUpload(const nlohmann::json& body);

  PdfStore& store_;
  DockDrops& dock_drops_;
  PdfActionHost& host_;
};

} // namespace orvane
