// libarchive, which unpacks a downloaded update, is opened by the first
// unpacking rather than at exec: a start that applies no update neither maps
// nor relocates it, nor the compression and ACL libraries it needs. Its
// headers give the types of the functions looked up.
#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <string>

namespace orvane {

// The functions of libarchive that the unpacking calls.
struct Libarchive {
  decltype(&archive_read_new) read_new;
  decltype(&archive_read_support_format_zip) read_support_format_zip;
  decltype(&archive_read_open_filename) read_open_filename;
  decltype(&archive_read_next_header) read_next_header;
  decltype(&archive_read_data_block) read_data_block;
  decltype(&archive_read_free) read_free;
  decltype(&archive_write_disk_new) write_disk_new;
  decltype(&archive_write_disk_set_options) write_disk_set_options;
  decltype(&archive_write_header) write_header;
  decltype(&archive_write_data_block) write_data_block;
  decltype(&archive_write_finish_entry) write_finish_entry;
  decltype(&archive_write_free) write_free;
  decltype(&archive_entry_pathname) entry_pathname;
  decltype(&archive_entry_set_pathname) entry_set_pathname;
  decltype(&archive_entry_filetype) entry_filetype;
  decltype(&archive_entry_hardlink) entry_hardlink;
  decltype(&archive_entry_set_hardlink) entry_set_hardlink;
  decltype(&archive_entry_symlink) entry_symlink;
  decltype(&archive_entry_size_is_set) entry_size_is_set;
  decltype(&archive_entry_size) entry_size;
  decltype(&archive_entry_perm) entry_perm;
  decltype(&archive_entry_set_perm) entry_set_perm;
};

// The library's functions, or nullptr when it cannot be opened or lacks one
// of them; the log then says why, once. Opened on the first call; safe from
// any thread. The file opened is the soname it was built against, or the one
// $ORVANE_ARCHIVE_LIBRARY names.
const Libarchive* OpenLibarchive();

} // namespace orvane
