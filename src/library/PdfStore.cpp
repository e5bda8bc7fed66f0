#include "library/PdfStore.h"

#include "app/Paths.h"
#include "app/SparLog.h"
#include "library/LibraryFolder.h"

#include <glib/gstdio.h>

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

void PdfStore::setAccount(const std::string& name) {
  std::string account = SanitisedAccount(name);
  if (account_ && *account_ == account)
    return;
  account_ = account;
  std::string path = folder();
  g_mkdir_with_parents(path.c_str(), 0755);
  SparLog("pdfs: folder %@", path);
}

std::string PdfStore::folder() const {
  return JoinPath(LibraryFolder(), account_.value_or(""));
}

} // namespace orvane
