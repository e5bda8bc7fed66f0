// The signature of an install folder: the MANIFEST that lists every file
// with its SHA-256 and mode, its Ed25519 signature, and the check of a folder
// against a trusted key. Used by orvane-sign and by the update.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

inline constexpr char kManifestPath[] = "share/orvane/MANIFEST";
inline constexpr char kManifestSignaturePath[] = "share/orvane/MANIFEST.sig";
inline constexpr char kUpdateKeyPath[] = "share/orvane/update-key.pub";
// A MANIFEST larger than this is refused unread.
inline constexpr size_t kManifestSizeLimit = 32 * 1024 * 1024;
// The permission bits an installed file may have: nothing that lets the
// group or others write it, and no set-id or sticky bit. Folders are made
// with exactly these.
inline constexpr unsigned kInstalledModeBits = 0755;

enum class EntryKind { kFile, kLink, kOther };

struct ManifestEntry {
  std::string path; // relative to the install folder
  EntryKind kind = EntryKind::kFile;
  std::string sha256_hex;  // files
  unsigned mode = 0;       // files: permission bits (07777)
  std::string link_target; // links
  bool operator==(const ManifestEntry&) const = default;
};

struct Manifest {
  std::string app_id;
  std::string version;
  std::string build;
  std::vector<ManifestEntry> entries; // sorted by path, no duplicates
};

// The MANIFEST text. Bytes that would break a line or a field (control
// characters, space, DEL, backslash) are written as \xHH.
std::string ManifestText(const Manifest& manifest);

struct ParsedManifest {
  std::optional<Manifest> manifest;
  std::string error; // why the text is not a MANIFEST
};
// Refuses anything the writer would not produce: unknown lines, unsorted or
// repeated paths, absolute paths, "." or ".." components, bad escapes.
ParsedManifest ParseManifest(std::string_view text);

// A path that stays inside the folder it is relative to.
bool IsSafeRelativePath(std::string_view path);

struct FolderScan {
  std::vector<ManifestEntry> entries; // sorted by path
  std::vector<std::string> folders;   // every folder below the top, sorted by path
  std::string error;                  // empty when the folder could be read
};
// Every file, link and folder of the folder, read without following links
// (so nothing outside it is ever read). MANIFEST and MANIFEST.sig are left
// out of the entries.
FolderScan ScanInstallFolder(const std::string& folder);

// Whether a link at `path` (relative to `folder`) leads outside the folder.
bool LinkLeadsOutside(const std::string& folder, const ManifestEntry& link);
// Whether a relative link at `link_path` (relative to a folder) stays inside
// that folder by its text alone: "..", resolved against the link's own
// folder, never climbs above the top; absolute and empty targets do not.
bool LinkStaysInsideByName(const std::string& link_path, const std::string& target);

// The codes of a failed check; stable, documented in docs/releasing.md.
enum class FolderCheckCode {
  kValid = 0,
  kSignatureDoesNotVerify = 1,
  kOtherAppId = 2,
  kListedFileMissing = 3,
  kFileDiffers = 4,
  kUnlistedFile = 5,
  kLinkOutside = 6,
};

struct FolderCheck {
  FolderCheckCode code = FolderCheckCode::kValid;
  std::string message;
  std::string version; // the signed MANIFEST's version, when the check passed
  bool ok() const { return code == FolderCheckCode::kValid; }
};

// Checks an install folder: its MANIFEST.sig verifies under the trusted key
// (base64), the MANIFEST names `app_id`, and the folder holds exactly the
// listed files with those hashes and modes, and no link that leads outside.
// A listed mode outside kInstalledModeBits is refused like a file that
// differs (4); a folder that holds nothing the MANIFEST lists like a file
// that is not listed (5).
FolderCheck CheckInstallFolder(const std::string& folder, const std::string& trusted_public_key,
                               const std::string& app_id);

// Reads a small file inside `folder` without following any link on the way.
std::optional<std::string> ReadFileInside(const std::string& folder, const std::string& path,
                                          size_t size_limit);

// Keys and signatures (libsodium Ed25519); keys travel as base64 text.
// libsodium is opened by the first of these, the hashes of a scan or a check
// (update/Libsodium.h); without it no key is made, nothing is signed and no
// signature verifies, and scans, checks and signings fail saying why.
struct KeyPair {
  std::string public_key; // base64
  std::string secret_key; // base64
};
std::optional<KeyPair> GenerateKeyPair();
std::optional<std::string> PublicKeyOf(const std::string& secret_key);
std::optional<std::string> SignText(std::string_view text, const std::string& secret_key);
bool SignatureVerifies(std::string_view text, const std::string& signature,
                       const std::string& public_key);

// Writes update-key.pub, MANIFEST and MANIFEST.sig into the folder; with
// `manifest_only`, signs the MANIFEST as it stands. Empty, or why not.
std::string SignInstallFolder(const std::string& folder, const std::string& secret_key,
                              const std::string& app_id, const std::string& version,
                              const std::string& build, bool manifest_only);

} // namespace orvane
