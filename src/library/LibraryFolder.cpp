#include "library/LibraryFolder.h"

#include "app/Paths.h"

#include <glib/gstdio.h>

namespace orvane {

std::string DefaultLibraryFolder() {
  return JoinPath(DocumentsFolder(), "Orvane");
}

std::string LibraryFolder() {
  std::string folder = DefaultLibraryFolder();
  g_mkdir_with_parents(folder.c_str(), 0755);
  return folder;
}

} // namespace orvane
