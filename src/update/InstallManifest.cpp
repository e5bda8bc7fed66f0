#include "update/InstallManifest.h"

#include "update/Libsodium.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

constexpr size_t kKeyFileSizeLimit = 4096;
// A folder deeper or fuller than this is not an install folder.
constexpr int kDepthLimit = 64;
constexpr size_t kEntryLimit = 500000;

// ---- fields

bool NeedsEscape(unsigned char c) {
  return c <= 0x20 || c == 0x7f || c == '\\';
}

std::string Escape(std::string_view text) {
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    if (NeedsEscape(c)) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += char(c);
    }
  }
  return out;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return -1;
}

// The inverse of Escape; refuses raw bytes that Escape would have escaped,
// and escapes of bytes that needed none, so that each text has one form.
std::optional<std::string> Unescape(std::string_view field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    unsigned char c = field[i];
    if (c == '\\') {
      if (i + 3 >= field.size() || field[i + 1] != 'x')
        return std::nullopt;
      int high = HexValue(field[i + 2]), low = HexValue(field[i + 3]);
      if (high < 0 || low < 0)
        return std::nullopt;
      unsigned char decoded = (unsigned char)(high * 16 + low);
      if (!NeedsEscape(decoded))
        return std::nullopt;
      out += char(decoded);
      i += 3;
    } else if (NeedsEscape(c)) {
      return std::nullopt;
    } else {
      out += char(c);
    }
  }
  return out;
}

std::vector<std::string_view> Fields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t start = 0;
  while (true) {
    size_t space = line.find(' ', start);
    fields.push_back(line.substr(start, space == std::string_view::npos ? space : space - start));
    if (space == std::string_view::npos)
      break;
    start = space + 1;
  }
  return fields;
}

std::string Base64(const Libsodium& sodium, const unsigned char* data, size_t size) {
  std::string out(sodium_base64_ENCODED_LEN(size, sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium.bin2base64(out.data(), out.size(), data, size, sodium_base64_VARIANT_ORIGINAL);
  out.resize(strlen(out.c_str()));
  return out;
}

// Exactly `size` bytes from base64 text; surrounding white space is allowed.
// Nothing without libsodium.
std::optional<std::string> FromBase64(std::string_view text, size_t size) {
  const Libsodium* sodium = OpenLibsodium();
  if (!sodium)
    return std::nullopt;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.remove_suffix(1);
  std::string out(size + 3, '\0');
  size_t length = 0;
  const char* end = nullptr;
  if (sodium->base642bin(reinterpret_cast<unsigned char*>(out.data()), out.size(), text.data(),
                         text.size(), nullptr, &length, &end,
                         sodium_base64_VARIANT_ORIGINAL) != 0 ||
      end != text.data() + text.size() || length != size)
    return std::nullopt;
  out.resize(length);
  return out;
}

// ---- files inside a folder, never through a link

// Opens `path` below the open folder `dir` component by component, refusing
// links on the way; the caller closes the result.
int OpenBelow(int dir, std::string_view path, int flags) {
  if (!IsSafeRelativePath(path))
    return -1;
  int current = dup(dir);
  size_t start = 0;
  while (current >= 0) {
    size_t slash = path.find('/', start);
    std::string name(path.substr(start, slash == std::string_view::npos ? slash : slash - start));
    bool last = slash == std::string_view::npos;
    int next = openat(current, name.c_str(),
                      (last ? flags : O_RDONLY | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC);
    close(current);
    if (last)
      return next;
    current = next;
    start = slash + 1;
  }
  return -1;
}

int OpenFolder(const std::string& folder) {
  return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// Reads the file to its end in chunks, handing each to `take`; false when a
// read fails or `take` refuses a chunk.
template <typename Take> bool ReadChunks(int fd, Take take) {
  char buffer[65536];
  while (true) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return false;
    if (got == 0)
      return true;
    if (!take(buffer, size_t(got)))
      return false;
  }
}

std::optional<std::string> ReadAll(int fd, size_t size_limit) {
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || size_t(info.st_size) > size_limit)
    return std::nullopt;
  std::string text;
  bool read_all = ReadChunks(fd, [&](const char* chunk, size_t size) {
    if (text.size() + size > size_limit)
      return false;
    text.append(chunk, size);
    return true;
  });
  if (!read_all)
    return std::nullopt;
  return text;
}

bool WriteBelow(const std::string& folder, const std::string& path, std::string_view text,
                mode_t mode) {
  int dir = OpenFolder(folder);
  if (dir < 0)
    return false;
  int fd = OpenBelow(dir, path, O_WRONLY | O_CREAT | O_TRUNC);
  close(dir);
  if (fd < 0)
    return false;
  bool written = fchmod(fd, mode) == 0;
  size_t done = 0;
  while (written && done < text.size()) {
    ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR)
      continue;
    written = put > 0;
    if (written)
      done += size_t(put);
  }
  return close(fd) == 0 && written;
}

std::optional<std::string> Sha256Hex(const Libsodium& sodium, int fd) {
  crypto_hash_sha256_state state;
  sodium.hash_sha256_init(&state);
  bool read_all = ReadChunks(fd, [&](const char* chunk, size_t size) {
    sodium.hash_sha256_update(&state, reinterpret_cast<const unsigned char*>(chunk), size);
    return true;
  });
  if (!read_all)
    return std::nullopt;
  unsigned char digest[crypto_hash_sha256_BYTES];
  sodium.hash_sha256_final(&state, digest);
  char hex[crypto_hash_sha256_BYTES * 2 + 1];
  sodium.bin2hex(hex, sizeof hex, digest, sizeof digest);
  return std::string(hex);
}

bool IsSignatureFile(const std::string& path) {
  return path == kManifestPath || path == kManifestSignaturePath;
}

struct Scanner {
  const Libsodium& sodium; // for the files' hashes
  std::vector<ManifestEntry> entries;
  std::vector<std::string> folders;
  std::string error;

  void scan(int dir, const std::string& prefix, int depth) {
    if (depth > kDepthLimit) {
      error = "folders nested too deep at " + prefix;
      return;
    }
    int own = dup(dir);
    DIR* listing = own >= 0 ? fdopendir(own) : nullptr;
    if (!listing) {
      if (own >= 0)
        close(own);
      error = "could not list " + (prefix.empty() ? std::string(".") : prefix);
      return;
    }
    while (error.empty()) {
      errno = 0;
      dirent* item = readdir(listing);
      if (!item)
        break;
      std::string name = item->d_name;
      if (name == "." || name == "..")
        continue;
      if (entries.size() >= kEntryLimit) {
        error = "too many files";
        break;
      }
      std::string path = prefix.empty() ? name : prefix + "/" + name;
      struct stat info;
      if (fstatat(dir, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        error = "could not read " + path;
        break;
      }
      ManifestEntry entry;
      entry.path = path;
      if (S_ISDIR(info.st_mode)) {
        int sub = openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub < 0) {
          error = "could not open " + path;
          break;
        }
        folders.push_back(path);
        scan(sub, path, depth + 1);
        close(sub);
        continue;
      }
      if (S_ISLNK(info.st_mode)) {
        std::string target(PATH_MAX, '\0');
        ssize_t length = readlinkat(dir, name.c_str(), target.data(), target.size());
        if (length < 0 || size_t(length) >= target.size()) {
          error = "could not read the link " + path;
          break;
        }
        target.resize(size_t(length));
        entry.kind = EntryKind::kLink;
        entry.link_target = target;
      } else if (S_ISREG(info.st_mode)) {
        if (IsSignatureFile(path))
          continue;
        int fd = openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        std::optional<std::string> hash = fd >= 0 ? Sha256Hex(sodium, fd) : std::nullopt;
        if (fd >= 0)
          close(fd);
        if (!hash) {
          error = "could not read " + path;
          break;
        }
        entry.sha256_hex = *hash;
        entry.mode = info.st_mode & 07777;
      } else {
        entry.kind = EntryKind::kOther;
        entry.mode = info.st_mode & 07777;
      }
      entries.push_back(std::move(entry));
    }
    closedir(listing);
  }
};

// The lexical destination of a relative link, or nothing when it climbs
// above the folder.
std::optional<std::vector<std::string>> LexicalTarget(const std::string& link_path,
                                                      const std::string& target) {
  if (target.empty() || target.front() == '/')
    return std::nullopt;
  std::vector<std::string> parts;
  auto push_all = [&parts](std::string_view text, bool drop_last) {
    size_t start = 0;
    std::vector<std::string> pieces;
    while (start <= text.size()) {
      size_t slash = text.find('/', start);
      pieces.emplace_back(
          text.substr(start, slash == std::string_view::npos ? slash : slash - start));
      if (slash == std::string_view::npos)
        break;
      start = slash + 1;
    }
    if (drop_last)
      pieces.pop_back();
    for (const std::string& piece : pieces) {
      if (piece.empty() || piece == ".")
        continue;
      if (piece == "..") {
        if (parts.empty())
          return false;
        parts.pop_back();
      } else {
        parts.push_back(piece);
      }
    }
    return true;
  };
  if (!push_all(link_path, true) || !push_all(target, false))
    return std::nullopt;
  return parts;
}

std::string Describe(const ManifestEntry& entry) {
  char mode[16];
  snprintf(mode, sizeof mode, "%o", entry.mode);
  switch (entry.kind) {
  case EntryKind::kLink:
    return "a link to " + entry.link_target;
  case EntryKind::kOther:
    return "neither a file nor a link";
  case EntryKind::kFile:
    break;
  }
  return "sha256 " + entry.sha256_hex + " mode " + mode;
}

FolderCheck Fail(FolderCheckCode code, std::string message) {
  return {code, std::move(message), ""};
}

bool ModeMayBeInstalled(unsigned mode) {
  return (mode & ~kInstalledModeBits) == 0;
}

// The first of `folders` that holds none of `entries` at any depth, if any.
std::optional<std::string> FolderWithoutEntries(const std::vector<std::string>& folders,
                                                const std::vector<ManifestEntry>& entries) {
  std::set<std::string_view> holding;
  for (const ManifestEntry& entry : entries) {
    std::string_view path = entry.path;
    for (size_t slash = path.rfind('/'); slash != std::string_view::npos && slash > 0;
         slash = path.rfind('/', slash - 1)) {
      if (!holding.insert(path.substr(0, slash)).second)
        break; // this folder, and so those above it, are known already
    }
  }
  for (const std::string& folder : folders)
    if (!holding.count(folder))
      return folder;
  return std::nullopt;
}

} // namespace

bool IsSafeRelativePath(std::string_view path) {
  if (path.empty() || path.size() > 4096 || path.front() == '/')
    return false;
  size_t start = 0;
  while (true) {
    size_t slash = path.find('/', start);
    std::string_view part =
        path.substr(start, slash == std::string_view::npos ? slash : slash - start);
    if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string_view::npos)
      return false;
    if (slash == std::string_view::npos)
      return true;
    start = slash + 1;
  }
}

std::string ManifestText(const Manifest& manifest) {
  std::string text = "app-id " + Escape(manifest.app_id) + "\nversion " + Escape(manifest.version) +
                     "\nbuild " + Escape(manifest.build) + "\n";
  for (const ManifestEntry& entry : manifest.entries) {
    if (entry.kind == EntryKind::kLink) {
      text += "link " + Escape(entry.link_target) + " " + Escape(entry.path) + "\n";
    } else {
      char mode[16];
      snprintf(mode, sizeof mode, "%o", entry.mode);
      text += entry.sha256_hex + " " + mode + " " + Escape(entry.path) + "\n";
    }
  }
  return text;
}

ParsedManifest ParseManifest(std::string_view text) {
  ParsedManifest result;
  auto fail = [&result](size_t line, const std::string& why) {
    result.error = "line " + std::to_string(line) + ": " + why;
    return result;
  };
  if (text.size() > kManifestSizeLimit)
    return fail(0, "larger than " + std::to_string(kManifestSizeLimit) + " bytes");
  if (text.empty() || text.back() != '\n')
    return fail(0, "does not end with a line break");
  Manifest manifest;
  static const char* const kHeaders[] = {"app-id", "version", "build"};
  std::string* header_values[] = {&manifest.app_id, &manifest.version, &manifest.build};
  size_t start = 0;
  size_t number = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    std::vector<std::string_view> fields = Fields(line);
    if (number <= 3) {
      std::optional<std::string> value = fields.size() == 2 ? Unescape(fields[1]) : std::nullopt;
      if (fields[0] != kHeaders[number - 1] || !value || value->empty())
        return fail(number, std::string("expected \"") + kHeaders[number - 1] + " VALUE\"");
      *header_values[number - 1] = *value;
      continue;
    }
    if (fields.size() != 3)
      return fail(number, "expected three fields");
    ManifestEntry entry;
    std::optional<std::string> path = Unescape(fields[2]);
    if (!path || !IsSafeRelativePath(*path))
      return fail(number, "the path is not a plain path inside the folder");
    entry.path = *path;
    if (IsSignatureFile(entry.path))
      return fail(number, "lists the signature files");
    if (fields[0] == "link") {
      std::optional<std::string> target = Unescape(fields[1]);
      if (!target || target->empty() || target->size() > 4096)
        return fail(number, "bad link target");
      entry.kind = EntryKind::kLink;
      entry.link_target = *target;
    } else {
      std::string_view hash = fields[0], mode = fields[1];
      bool hex = hash.size() == 64 &&
                 std::all_of(hash.begin(), hash.end(), [](char c) { return HexValue(c) >= 0; });
      // As the writer puts it: octal without leading zeros, so that a
      // manifest has a single text.
      bool octal =
          !mode.empty() && mode.size() <= 4 && (mode.size() == 1 || mode.front() != '0') &&
          std::all_of(mode.begin(), mode.end(), [](char c) { return c >= '0' && c <= '7'; });
      if (!hex || !octal)
        return fail(number, "expected \"SHA256 MODE PATH\" or \"link TARGET PATH\"");
      entry.sha256_hex = std::string(hash);
      entry.mode = unsigned(std::strtoul(std::string(mode).c_str(), nullptr, 8));
    }
    if (!manifest.entries.empty() && !(manifest.entries.back().path < entry.path))
      return fail(number, "paths are not in strictly increasing order");
    manifest.entries.push_back(std::move(entry));
  }
  if (number < 3)
    return fail(number, "the app-id, version and build lines are missing");
  result.manifest = std::move(manifest);
  return result;
}

FolderScan ScanInstallFolder(const std::string& folder) {
  FolderScan result;
  const Libsodium* sodium = OpenLibsodium();
  if (!sodium) {
    result.error = "files cannot be hashed: " + LibsodiumProblem();
    return result;
  }
  int dir = OpenFolder(folder);
  if (dir < 0) {
    result.error = "could not open " + folder;
    return result;
  }
  Scanner scanner{*sodium, {}, {}, {}};
  scanner.scan(dir, "", 0);
  close(dir);
  result.error = scanner.error;
  result.entries = std::move(scanner.entries);
  result.folders = std::move(scanner.folders);
  std::sort(result.entries.begin(), result.entries.end(),
            [](const ManifestEntry& a, const ManifestEntry& b) { return a.path < b.path; });
  std::sort(result.folders.begin(), result.folders.end());
  return result;
}

bool LinkStaysInsideByName(const std::string& link_path, const std::string& target) {
  return LexicalTarget(link_path, target).has_value();
}

bool LinkLeadsOutside(const std::string& folder, const ManifestEntry& link) {
  if (!LexicalTarget(link.path, link.link_target))
    return true;
  // Links through other links can climb out although each looks inside:
  // where the link resolves now must lie inside the folder too.
  char* real_folder = realpath(folder.c_str(), nullptr);
  char* real_target = realpath((folder + "/" + link.path).c_str(), nullptr);
  bool outside;
  if (real_folder && real_target) {
    std::string root = real_folder, target = real_target;
    outside = !(target == root || target.rfind(root + "/", 0) == 0);
  } else {
    // A link that leads nowhere yet must not climb at all.
    outside = link.link_target.find("..") != std::string::npos;
  }
  free(real_folder);
  free(real_target);
  return outside;
}

std::optional<std::string> ReadFileInside(const std::string& folder, const std::string& path,
                                          size_t size_limit) {
  int dir = OpenFolder(folder);
  if (dir < 0)
    return std::nullopt;
  int fd = OpenBelow(dir, path, O_RDONLY);
  close(dir);
  if (fd < 0)
    return std::nullopt;
  std::optional<std::string> text = ReadAll(fd, size_limit);
  close(fd);
  return text;
}

FolderCheck CheckInstallFolder(const std::string& folder, const std::string& trusted_public_key,
                               const std::string& app_id) {
  std::optional<std::string> text = ReadFileInside(folder, kManifestPath, kManifestSizeLimit);
  if (!text)
    return Fail(FolderCheckCode::kSignatureDoesNotVerify, "there is no readable MANIFEST");
  std::optional<std::string> signature =
      ReadFileInside(folder, kManifestSignaturePath, kKeyFileSizeLimit);
  if (!signature)
    return Fail(FolderCheckCode::kSignatureDoesNotVerify, "there is no readable MANIFEST.sig");
  if (!OpenLibsodium())
    return Fail(FolderCheckCode::kSignatureDoesNotVerify,
                "signatures cannot be checked: " + LibsodiumProblem());
  if (!SignatureVerifies(*text, *signature, trusted_public_key))
    return Fail(FolderCheckCode::kSignatureDoesNotVerify,
                "MANIFEST.sig does not verify under the trusted key");
  ParsedManifest parsed = ParseManifest(*text);
  if (!parsed.manifest)
    return Fail(FolderCheckCode::kSignatureDoesNotVerify,
                "the signed MANIFEST is malformed (" + parsed.error + ")");
  const Manifest& manifest = *parsed.manifest;
  if (manifest.app_id != app_id)
    return Fail(FolderCheckCode::kOtherAppId,
                "the MANIFEST names the app " + Escape(manifest.app_id) + ", not " + app_id);

  FolderScan scan = ScanInstallFolder(folder);
  if (!scan.error.empty())
    return Fail(FolderCheckCode::kListedFileMissing, "the folder could not be read: " + scan.error);
  for (const ManifestEntry& found : scan.entries)
    if (found.kind == EntryKind::kLink && LinkLeadsOutside(folder, found))
      return Fail(FolderCheckCode::kLinkOutside, "the link " + Escape(found.path) +
                                                     " leads outside the folder (to " +
                                                     Escape(found.link_target) + ")");
  // Both lists are sorted by path: one walk finds what is missing, what
  // differs and what was added.
  std::optional<FolderCheck> differs, unlisted;
  auto on_disk = scan.entries.begin();
  for (const ManifestEntry& listed : manifest.entries) {
    while (on_disk != scan.entries.end() && on_disk->path < listed.path) {
      if (!unlisted)
        unlisted = Fail(FolderCheckCode::kUnlistedFile,
                        "the file " + Escape(on_disk->path) + " is not in the MANIFEST");
      ++on_disk;
    }
    if (on_disk == scan.entries.end() || on_disk->path != listed.path)
      return Fail(FolderCheckCode::kListedFileMissing,
                  "the listed file " + Escape(listed.path) + " is missing");
    if (!differs && listed.kind == EntryKind::kFile && !ModeMayBeInstalled(listed.mode)) {
      char mode[16];
      snprintf(mode, sizeof mode, "%o", listed.mode);
      differs = Fail(FolderCheckCode::kFileDiffers,
                     "the MANIFEST gives the file " + Escape(listed.path) + " the mode " + mode +
                         ", which is never installed (only modes within 755)");
    }
    if (!(*on_disk == listed) && !differs)
      differs = Fail(FolderCheckCode::kFileDiffers, "the file " + Escape(listed.path) + " is " +
                                                        Describe(*on_disk) +
                                                        ", the MANIFEST says " + Describe(listed));
    ++on_disk;
  }
  if (on_disk != scan.entries.end() && !unlisted)
    unlisted = Fail(FolderCheckCode::kUnlistedFile,
                    "the file " + Escape(on_disk->path) + " is not in the MANIFEST");
  if (differs)
    return *differs;
  if (unlisted)
    return *unlisted;
  if (std::optional<std::string> empty = FolderWithoutEntries(scan.folders, manifest.entries))
    return Fail(FolderCheckCode::kUnlistedFile,
                "the folder " + Escape(*empty) + " holds no file of the MANIFEST");
  FolderCheck valid;
  valid.version = manifest.version;
  return valid;
}

std::optional<KeyPair> GenerateKeyPair() {
  const Libsodium* sodium = OpenLibsodium();
  if (!sodium)
    return std::nullopt;
  unsigned char public_key[crypto_sign_PUBLICKEYBYTES];
  unsigned char secret_key[crypto_sign_SECRETKEYBYTES];
  sodium->sign_keypair(public_key, secret_key);
  KeyPair pair{Base64(*sodium, public_key, sizeof public_key),
               Base64(*sodium, secret_key, sizeof secret_key)};
  sodium->memzero(secret_key, sizeof secret_key);
  return pair;
}

std::optional<std::string> PublicKeyOf(const std::string& secret_key) {
  std::optional<std::string> secret = FromBase64(secret_key, crypto_sign_SECRETKEYBYTES);
  if (!secret)
    return std::nullopt;
  const Libsodium& sodium = *OpenLibsodium(); // FromBase64 needed it too
  unsigned char public_key[crypto_sign_PUBLICKEYBYTES];
  sodium.sign_ed25519_sk_to_pk(public_key, reinterpret_cast<const unsigned char*>(secret->data()));
  sodium.memzero(secret->data(), secret->size());
  return Base64(sodium, public_key, sizeof public_key);
}

std::optional<std::string> SignText(std::string_view text, const std::string& secret_key) {
  std::optional<std::string> secret = FromBase64(secret_key, crypto_sign_SECRETKEYBYTES);
  if (!secret)
    return std::nullopt;
  const Libsodium& sodium = *OpenLibsodium(); // FromBase64 needed it too
  unsigned char signature[crypto_sign_BYTES];
  sodium.sign_detached(signature, nullptr, reinterpret_cast<const unsigned char*>(text.data()),
                       text.size(), reinterpret_cast<const unsigned char*>(secret->data()));
  sodium.memzero(secret->data(), secret->size());
  return Base64(sodium, signature, sizeof signature);
}

bool SignatureVerifies(std::string_view text, const std::string& signature,
                       const std::string& public_key) {
  std::optional<std::string> raw_signature = FromBase64(signature, crypto_sign_BYTES);
  std::optional<std::string> raw_key = FromBase64(public_key, crypto_sign_PUBLICKEYBYTES);
  if (!raw_signature || !raw_key)
    return false;
  const Libsodium& sodium = *OpenLibsodium(); // FromBase64 needed it too
  return sodium.sign_verify_detached(reinterpret_cast<const unsigned char*>(raw_signature->data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     text.size(),
                                     reinterpret_cast<const unsigned char*>(raw_key->data())) == 0;
}

std::string SignInstallFolder(const std::string& folder, const std::string& secret_key,
                              const std::string& app_id, const std::string& version,
                              const std::string& build, bool manifest_only) {
  if (!OpenLibsodium())
    return "signatures cannot be made: " + LibsodiumProblem();
  std::optional<std::string> public_key = PublicKeyOf(secret_key);
  if (!public_key)
    return "the key file does not hold an Ed25519 secret key";
  std::string text;
  if (manifest_only) {
    std::optional<std::string> existing = ReadFileInside(folder, kManifestPath, kManifestSizeLimit);
    if (!existing)
      return std::string("there is no readable ") + kManifestPath + " to sign";
    text = *existing;
  } else {
    if (version.empty() || build.empty())
      return "the version and the build must not be empty";
    int dir = OpenFolder(folder);
    int share = dir >= 0 ? OpenBelow(dir, "share/orvane", O_RDONLY | O_DIRECTORY) : -1;
    if (dir >= 0)
      close(dir);
    if (share < 0)
      return "the folder has no share/orvane/ (is it an install folder?)";
    close(share);
    if (!WriteBelow(folder, kUpdateKeyPath, *public_key + "\n", 0644))
      return std::string("could not write ") + kUpdateKeyPath;
    FolderScan scan = ScanInstallFolder(folder);
    if (!scan.error.empty())
      return scan.error;
    for (const ManifestEntry& entry : scan.entries) {
      if (entry.kind == EntryKind::kOther)
        return "refusing to sign " + Escape(entry.path) + ": neither a file nor a link";
      if (entry.kind == EntryKind::kLink && LinkLeadsOutside(folder, entry))
        return "refusing to sign " + Escape(entry.path) + ": the link leads outside the folder";
      if (entry.kind == EntryKind::kFile && !ModeMayBeInstalled(entry.mode)) {
        char mode[16];
        snprintf(mode, sizeof mode, "%o", entry.mode);
        return "refusing to sign " + Escape(entry.path) + ": its mode " + mode +
               " is never installed (only modes within 755)";
      }
    }
    if (std::optional<std::string> empty = FolderWithoutEntries(scan.folders, scan.entries))
      return "refusing to sign " + Escape(*empty) + ": a folder that holds no file";
    Manifest manifest{app_id, version, build, std::move(scan.entries)};
    text = ManifestText(manifest);
    if (!WriteBelow(folder, kManifestPath, text, 0644))
      return std::string("could not write ") + kManifestPath;
  }
  std::optional<std::string> signature = SignText(text, secret_key);
  if (!signature)
    return "could not sign";
  if (!WriteBelow(folder, kManifestSignaturePath, *signature + "\n", 0644))
    return std::string("could not write ") + kManifestSignaturePath;
  return "";
}

} // namespace orvane
