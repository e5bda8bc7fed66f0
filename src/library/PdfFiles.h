// Facts about files on disk that the library's decisions rest on.
#pragma once

#include <cstdint>
#include <string>

namespace orvane {

// Modification time in seconds since 1970 (with sub-second precision); 0
// when the file's attributes cannot be read.
double MTime(const std::string& path);
// Size in bytes; 0 when the attributes cannot be read.
int64_t FileSize(const std::string& path);
bool FileExists(const std::string& path);

// Whether the file looks like a whole PDF: it begins "%PDF-", is longer
// than 31 bytes and has "%%EOF" within its last 2048 bytes.
bool CompletePdf(const std::string& path);

// The extension of a path's file name, lower-cased ("" when none).
std::string LowerExtension(const std::string& path);
// The last path component.
std::string FileName(const std::string& path);

// Writes the bytes to a temporary file beside the target and renames it
// over the target, so readers see the old file or the new one, never half.
bool WriteFileAtomically(const std::string& path, const std::string& bytes);

// Sets a file's modification (and access) time; errors are ignored.
void SetMTime(const std::string& path, double seconds);

} // namespace orvane
