// The release an install folder was made as: the version line of its
// signed MANIFEST. Pages learn it as window.panelCaps.release and compare it
// with the release the site offers.
#pragma once

#include <optional>
#include <string>

namespace orvane {

// The MANIFEST's version, or nothing when the folder is empty (a run from the
// build tree) or its MANIFEST is missing, unreadable or not a MANIFEST.
std::optional<std::string> ReleaseOfInstallFolder(const std::string& install_folder);

} // namespace orvane
