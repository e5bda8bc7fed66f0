#include "app/RunningRelease.h"

#include "update/InstallManifest.h"

namespace orvane {

std::optional<std::string> ReleaseOfInstallFolder(const std::string& install_folder) {
  if (install_folder.empty())
    return std::nullopt;
  std::optional<std::string> text =
      ReadFileInside(install_folder, kManifestPath, kManifestSizeLimit);
  if (!text)
    return std::nullopt;
  ParsedManifest parsed = ParseManifest(*text);
  if (!parsed.manifest || parsed.manifest->version.empty())
    return std::nullopt;
  return parsed.manifest->version;
}

} // namespace orvane
