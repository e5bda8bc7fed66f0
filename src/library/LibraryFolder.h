// The folder that holds the library's PDFs, one subfolder per account.
#pragma once

#include <string>

namespace orvane {

// The default library folder: "Orvane" in the user's documents folder.
std::string DefaultLibraryFolder();

// The library folder, resolved afresh at every use; created when missing.
std::string LibraryFolder();

} // namespace orvane
