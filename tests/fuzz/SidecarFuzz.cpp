// Whatever bytes a sidecar holds, reading it never throws or crashes: it
// gives either no sidecar or a JSON object whose "id" and "etag", as the
// library reads them, are strings or absent. Read from the disk it gives the
// same as read from memory, and nothing at all above 64 KiB. What the reader
// accepts, the writer writes back unchanged.
#include "FuzzFiles.h"
#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/TempDir.h"

#include <cstdint>
#include <cstdlib>
#include <glib.h>
#include <string>
#include <string_view>

using orvane::PdfStore;

namespace {

// The member as the library reads it must be the member as it is stored,
// when that is a string, and absent otherwise.
void CheckMember(const nlohmann::json& sidecar, const char* key) {
  std::optional<std::string> read = PdfStore::sidecarString(sidecar, key);
  auto found = sidecar.find(key);
  bool stored_string = found != sidecar.end() && found->is_string();
  if (read.has_value() != stored_string)
    std::abort();
  if (read && *read != found->get<std::string>())
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvane::PreferMemoryForTemporaryFiles();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static orvane::TempDir folder;
  std::string text(reinterpret_cast<const char*>(data), size);

  std::optional<nlohmann::json> parsed = orvane::ParseSidecar(text);
  if (parsed && !parsed->is_object())
    std::abort();
  if (parsed && size > orvane::kMaxSidecarBytes)
    std::abort();
  // The reference: a sidecar is exactly a JSON object of at most 64 KiB.
  bool object = nlohmann::json::parse(text, nullptr, false).is_object();
  if (parsed.has_value() != (object && size <= orvane::kMaxSidecarBytes))
    std::abort();
  if (orvane::ParseSidecar(text) != parsed)
    std::abort();

  // The same bytes on disk, beside a PDF.
  std::string pdf = folder.file("paper.pdf");
  orvane::TempDir::WriteFile(PdfStore::sidecarFor(pdf), text);
  if (PdfStore::sidecarAt(pdf) != parsed)
    std::abort();
  PdfStore::hasUnsyncedEdits(pdf);

  if (!parsed)
    return 0;
  CheckMember(*parsed, "id");
  CheckMember(*parsed, "etag");

  // Whatever id and etag were read come back unchanged once written.
  std::optional<std::string> id = PdfStore::sidecarString(*parsed, "id");
  std::optional<std::string> etag = PdfStore::sidecarString(*parsed, "etag");
  if (!id)
    return 0;
  PdfStore::markSynced(pdf, *id, etag, 1000);
  std::optional<nlohmann::json> written = PdfStore::sidecarAt(pdf);
  if (!written || PdfStore::sidecarString(*written, "id") != id ||
      PdfStore::sidecarString(*written, "etag") != etag.value_or(""))
    std::abort();
  if (orvane::MTime(PdfStore::sidecarFor(pdf)) != 1000)
    std::abort();
  return 0;
}
