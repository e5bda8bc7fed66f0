#include "update/Libarchive.h"

#include "base/SharedLibrary.h"
#include "base/SparLog.h"

namespace orvane {

const Libarchive* OpenLibarchive() {
  static const Libarchive* const opened = []() -> const Libarchive* {
    static SharedLibrary library(ORVANE_ARCHIVE_SONAME, "ORVANE_ARCHIVE_LIBRARY");
    static Libarchive f{
        ORVANE_LIBRARY_FUNCTION(library, archive_read_new),
        ORVANE_LIBRARY_FUNCTION(library, archive_read_support_format_zip),
        ORVANE_LIBRARY_FUNCTION(library, archive_read_open_filename),
        ORVANE_LIBRARY_FUNCTION(library, archive_read_next_header),
        ORVANE_LIBRARY_FUNCTION(library, archive_read_data_block),
        ORVANE_LIBRARY_FUNCTION(library, archive_read_free),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_disk_new),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_disk_set_options),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_header),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_data_block),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_finish_entry),
        ORVANE_LIBRARY_FUNCTION(library, archive_write_free),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_pathname),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_set_pathname),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_filetype),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_hardlink),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_set_hardlink),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_symlink),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_size_is_set),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_size),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_perm),
        ORVANE_LIBRARY_FUNCTION(library, archive_entry_set_perm),
    };
    if (library.complete())
      return &f;
    SparLog("update: zip archives cannot be unpacked (%@)", library.error());
    return nullptr;
  }();
  return opened;
}

} // namespace orvane
