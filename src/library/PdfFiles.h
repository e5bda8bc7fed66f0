// Facts about files on disk that the library's decisions rest on. A file of
// the library is a regular file in the account folder, looked at without
// following a symbolic link: a link (wherever it points), a FIFO, a socket,
// a device or a folder under a PDF's or a sidecar's name counts as no file.
#pragma once

#include "base/Paths.h"

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace orvane {

// Modification time in seconds since 1970 (with sub-second precision); 0
// when there is no such library file.
double MTime(const std::string& path);
// Size in bytes; 0 when there is no such library file.
int64_t FileSize(const std::string& path);
bool FileExists(const std::string& path);

// Opens a library file for reading, without following a link and without
// waiting on a FIFO or a device: the descriptor, with the file's attributes
// in `info`, or -1 when the path names no regular file.
int OpenLibraryFile(const std::string& path, struct stat& info);
// The modification time held in a file's attributes, in seconds since 1970.
double ModificationTime(const struct stat& info);

// Whether the file looks like a whole PDF: it begins "%PDF-", is longer
// than 31 bytes and has "%%EOF" within its last 2048 bytes.
bool CompletePdf(const std::string& path);

// Writes the bytes to a fresh temporary file beside the target, gives it the
// modification time, and renames it over the target, so readers see the old
// file or the new one, never half. Whatever the target's name was (a link
// included) is replaced; nothing it pointed at is written. False on failure,
// with nothing left behind.
bool WriteFileAtomically(const std::string& path, const std::string& bytes, double mtime);
// The suffix of the temporary name WriteFileAtomically uses beside the target.
inline constexpr char kAtomicWriteSuffix[] = ".XXXXXX";

// Sets a file's modification (and access) time, never through a link;
// errors, and times no file can hold (NaN, the infinities), are ignored.
void SetMTime(const std::string& path, double seconds);

} // namespace orvane
