#include "library/PdfActions.h"

#include "base/SparLog.h"
#include "bridge/Payload.h"
#include "library/HttpTransfer.h"
#include "library/PdfFiles.h"

namespace orvane {

PdfActions::PdfActions(PdfStore& store, DockDrops& dock_drops, PdfActionHost& host)
    : store_(store), dock_drops_(dock_drops), host_(host) {}

bool PdfActions::handlePdfAction(const std::optional<std::string>& action,
                                 const nlohmann::json& body, const PageRef& from) {
  if (action == "hello") {
    host_.helloFrom(from, StringMember(body, "account").value_or(""));
    return true;
  }
  if (!store_.account()) {
    // Written for the dispatcher's own actions too, which still run.
    SparLog("%@ before hello — ignored", action);
    return false;
  }
  if (!action)
    return false;

  // An id holding NUL names no file: it counts as missing.
  std::optional<std::string> id = NameMember(body, "id");
  const std::string& name = *action;
  bool takes_id = name == "openPdf" || name == "preparePdf" || name == "revealPdf" ||
                  name == "dragPdf" || name == "uploadFile" || name == "markSynced";
  if (takes_id && id && !store_.paperIdFits(*id)) {
    // Its PDF, sidecar or temporary file could not be made: say so rather
    // than fail somewhere on the way.
    host_.sendEvent({{"type", "error"}, {"id", *id}, {"message", "Paper id too long"}});
    return true;
  }

  if (name == "openPdf" || name == "preparePdf" || name == "revealPdf") {
    if (id)
      makeLocal(name, *id, StringMember(body, "url"), StringMember(body, "etag"));
  } else if (name == "dragPdf") {
    if (id)
      dragPdf(*id, from);
  } else if (name == "uploadFile") {
    if (id)
      uploadFile(*id, body);
  } else if (name == "markSynced") {
    if (id)
      markSynced(*id, body);
  } else if (name == "inboxUpload") {
    inboxUpload(body);
  } else if (name == "runClaude") {
    host_.runClaude(body);
  } else if (name == "stopClaude") {
    host_.stopClaude(body);
  } else if (name == "updateApp") {
    // Only a string address starts an update; anything else is ignored.
    if (std::optional<std::string> url = StringMember(body, "url"))
      host_.updateFrom(*url);
  } else {
    return false;
  }
  return true;
}

void PdfActions::makeLocal(const std::string& action, const std::string& paper_id,
                           const std::optional<std::string>& url,
                           const std::optional<std::string>& etag) {
  store_.ensureLocal(
      paper_id, url, etag,
      [this, action, paper_id](std::optional<std::string> path, std::optional<std::string> error) {
        if (!path) {
          host_.sendEvent({{"type", "error"},
                           {"id", paper_id},
                           {"message", error.value_or("Could not fetch the PDF")}});
          return;
        }
        if (action == "openPdf") {
          host_.openInPreview(*path);
          host_.sendEvent({{"type", "pdfOpened"}, {"id", paper_id}});
        } else if (action == "revealPdf") {
          host_.revealInFileManager(*path);
        } else {
          host_.sendEvent({{"type", "pdfReady"}, {"id", paper_id}});
        }
      });
}

void PdfActions::dragPdf(const std::string& paper_id, const PageRef& from) {
  std::string path = store_.pathFor(paper_id);
  if (FileExists(path))
    host_.beginFileDrag(path, from);
  else
    host_.sendEvent({{"type", "pdfNotReady"}, {"id", paper_id}});
}

void PdfActions::uploadFile(const std::string& paper_id, const nlohmann::json& body) {
  std::optional<std::string> url = StringMember(body, "upload_url");
  if (!url)
    return;
  // The token is the page's own; it comes back as it was sent.
  nlohmann::json token = body.contains("token") ? body["token"] : nlohmann::json("");
  store_.upload(paper_id, *url,
                [this, paper_id, token](bool ok, std::optional<std::string> error, double mtime) {
                  host_.sendEvent({{"type", "uploaded"},
                                   {"id", paper_id},
                                   {"token", token},
                                   {"ok", ok},
                                   {"mtime", mtime},
                                   {"error", error.value_or("")}});
                });
}

void PdfActions::markSynced(const std::string& paper_id, const nlohmann::json& body) {
  std::string path = store_.pathFor(paper_id);
  double mtime = NumberMember(body, "mtime");
  PdfStore::markSynced(path, paper_id, StringMember(body, "etag").value_or(""), mtime);
  if (PdfStore::hasUnsyncedEdits(path) && CompletePdf(path))
    host_.sendEvent({{"type", "pdfChanged"},
                     {"id", paper_id},
                     {"mtime", MTime(path)},
                     {"size", FileSize(path)}});
}

void PdfActions::inboxUpload(const nlohmann::json& body) {
  std::optional<std::string> token = StringMember(body, "token");
  std::optional<std::string> url = StringMember(body, "upload_url");
  if (!token)
    return;
  std::optional<std::string> path = dock_drops_.path(*token);
  if (!path || !url)
    return;
  dock_drops_.forget(*token);
  std::string name = FileName(*path);
  UploadRequest request;
  request.url = *url;
  request.file = *path;
  request.timeout_seconds = kUploadTimeout;
  SparLog("dock drop: uploading %@", name);
  UploadFromFile(request, [this, token = *token, name](TransferResult result) {
    bool ok = !result.error && result.status >= 200 && result.status <= 299;
    if (ok)
      SparLog("dock drop: upload %@", "done");
    else
      SparLog("dock drop: upload %@", "failed (" + std::to_string(result.status) + ")");
    std::string error = result.error ? *result.error
                        : ok         ? std::string()
                                     : "HTTP " + std::to_string(result.status);
    host_.sendEvent({{"type", "inboxUploaded"},
                     {"token", token},
                     {"ok", ok},
                     {"name", name},
                     {"error", error}});
  });
}

} // namespace orvane
