// Any text as a MANIFEST. What the parser accepts is the one text the writer
// would write for it, with safe paths, 64-digit hashes and permission modes.
// Signed with a key the check trusts, it reaches the check of a real folder,
// which must give exactly the code a plain comparison with the folder's
// files gives, never pass a folder with a link that climbs out, never pass a
// signature made by another key, and never open anything beside the folder.
#include "FuzzFiles.h"
#include "update/InstallManifest.h"

#include "support/TempDir.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using orvane::CheckInstallFolder;
using orvane::EntryKind;
using orvane::FolderCheckCode;
using orvane::ManifestEntry;

namespace {

constexpr char kAppId[] = "com.tarnwick.orvane";

void Require(bool holds) {
  if (!holds)
    std::abort();
}

void WriteWithMode(const std::string& path, const std::string& text, mode_t mode) {
  orvane::TempDir::WriteFile(path, text);
  Require(chmod(path.c_str(), mode) == 0);
}

void Link(const std::string& target, const std::string& path) {
  Require(symlink(target.c_str(), path.c_str()) == 0);
}

// The same small install folder every time, so that a MANIFEST that lists
// it exactly (one of the seeds) passes the check.
void MakeInstallFolder(const std::string& folder) {
  WriteWithMode(folder + "/bin/orvane", "#!/bin/sh\necho orvane\n", 0755);
  WriteWithMode(folder + "/share/orvane/site/index.html", "<p>hello</p>\n", 0644);
  WriteWithMode(folder + "/share/orvane/empty", "", 0600);
  Link("orvane", folder + "/bin/orvane-link");
  Link("../share/orvane/site", folder + "/bin/site");
  Link("nowhere", folder + "/share/orvane/dangling");
}

struct Fixture {
  orvane::TempDir parent;
  std::string clean = parent.file("Orvane");
  // The same files plus a chain of links that each look inside but climb
  // out together: "up" is the folder itself, "out" goes up from there.
  std::string climbing = parent.file("Climbing");
  std::string outside = parent.file("outside");
  orvane::KeyPair key;
  orvane::KeyPair other_key;
  std::vector<ManifestEntry> clean_files;
  std::vector<ManifestEntry> climbing_files;
  int watch = -1;

  Fixture() {
    MakeInstallFolder(clean);
    MakeInstallFolder(climbing);
    Link("share/..", climbing + "/up");
    Link("up/../outside", climbing + "/out");
    WriteWithMode(outside + "/secret", "not for the check\n", 0644);
    WriteWithMode(outside + "/share/orvane/MANIFEST", "app-id x\nversion 1\nbuild 1\n", 0644);
    std::optional<orvane::KeyPair> made = orvane::GenerateKeyPair();
    std::optional<orvane::KeyPair> other = orvane::GenerateKeyPair();
    Require(made && other);
    key = *made;
    other_key = *other;
    orvane::FolderScan scan = orvane::ScanInstallFolder(clean);
    Require(scan.error.empty() && scan.entries.size() == 6);
    clean_files = scan.entries;
    scan = orvane::ScanInstallFolder(climbing);
    Require(scan.error.empty() && scan.entries.size() == 8);
    climbing_files = scan.entries;
    // Every open or read beside the folders shows up here.
    watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    Require(watch >= 0);
    for (const char* sub : {"", "/share", "/share/orvane"})
      Require(inotify_add_watch(watch, (outside + sub).c_str(), IN_OPEN | IN_ACCESS) >= 0);
  }

  bool outsideWasTouched() const {
    char events[4096];
    return read(watch, events, sizeof events) > 0;
  }
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

// The code of the check, worked out by comparing the lists as sets:
// something listed is missing, else something differs, else something is
// not listed.
FolderCheckCode ExpectedCode(const std::vector<ManifestEntry>& listed,
                             const std::vector<ManifestEntry>& on_disk) {
  auto find = [](const std::vector<ManifestEntry>& in, const std::string& path) {
    return std::find_if(in.begin(), in.end(),
                        [&path](const ManifestEntry& entry) { return entry.path == path; });
  };
  for (const ManifestEntry& entry : listed)
    if (find(on_disk, entry.path) == on_disk.end())
      return FolderCheckCode::kListedFileMissing;
  for (const ManifestEntry& entry : listed)
    if (!(*find(on_disk, entry.path) == entry))
      return FolderCheckCode::kFileDiffers;
  if (listed.size() != on_disk.size())
    return FolderCheckCode::kUnlistedFile;
  return FolderCheckCode::kValid;
}

void CheckParsed(const std::string& text, const orvane::Manifest& manifest) {
  Require(!manifest.app_id.empty() && !manifest.version.empty() && !manifest.build.empty());
  for (size_t i = 0; i < manifest.entries.size(); ++i) {
    const ManifestEntry& entry = manifest.entries[i];
    Require(orvane::IsSafeRelativePath(entry.path));
    Require(entry.path != orvane::kManifestPath && entry.path != orvane::kManifestSignaturePath);
    Require(i == 0 || manifest.entries[i - 1].path < entry.path);
    if (entry.kind == EntryKind::kLink) {
      Require(!entry.link_target.empty() && entry.link_target.size() <= 4096);
      Require(entry.sha256_hex.empty() && entry.mode == 0);
    } else {
      Require(entry.kind == EntryKind::kFile && entry.link_target.empty());
      Require(entry.mode <= 07777 && entry.sha256_hex.size() == 64);
      Require(std::all_of(entry.sha256_hex.begin(), entry.sha256_hex.end(),
                          [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }));
    }
  }
  // One text per manifest: the writer gives back the very text read, and
  // that reads as the same manifest.
  std::string written = orvane::ManifestText(manifest);
  Require(written == text);
  orvane::ParsedManifest again = orvane::ParseManifest(written);
  Require(again.manifest && again.error.empty());
  Require(again.manifest->app_id == manifest.app_id &&
          again.manifest->version == manifest.version && again.manifest->build == manifest.build &&
          again.manifest->entries == manifest.entries);
}

void Sign(const std::string& folder, const std::string& text, const std::string& signature) {
  orvane::TempDir::WriteFile(folder + "/" + orvane::kManifestPath, text);
  orvane::TempDir::WriteFile(folder + "/" + orvane::kManifestSignaturePath, signature + "\n");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvane::PreferMemoryForTemporaryFiles();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& fixture = TheFixture();
  std::string text(reinterpret_cast<const char*>(data), size);

  orvane::ParsedManifest parsed = orvane::ParseManifest(text);
  Require(parsed.manifest.has_value() == parsed.error.empty());
  if (parsed.manifest)
    CheckParsed(text, *parsed.manifest);

  std::optional<std::string> signature = orvane::SignText(text, fixture.key.secret_key);
  Require(signature.has_value());
  for (const std::string* folder : {&fixture.clean, &fixture.climbing}) {
    Sign(*folder, text, *signature);
    bool climbing = folder == &fixture.climbing;
    const std::vector<ManifestEntry>& on_disk =
        climbing ? fixture.climbing_files : fixture.clean_files;

    orvane::FolderCheck check = CheckInstallFolder(*folder, fixture.key.public_key, kAppId);
    Require(check.ok() == check.message.empty());
    if (!parsed.manifest) {
      Require(check.code == FolderCheckCode::kSignatureDoesNotVerify);
    } else if (parsed.manifest->app_id != kAppId) {
      Require(check.code == FolderCheckCode::kOtherAppId);
    } else if (climbing) {
      Require(check.code == FolderCheckCode::kLinkOutside);
    } else {
      Require(check.code == ExpectedCode(parsed.manifest->entries, on_disk));
      Require(check.ok() == (parsed.manifest->entries == on_disk));
    }

    // Signed by anyone else, nothing passes, whatever it says.
    orvane::FolderCheck foreign = CheckInstallFolder(*folder, fixture.other_key.public_key, kAppId);
    Require(foreign.code == FolderCheckCode::kSignatureDoesNotVerify);

    // The check only reads: the folder holds what it held.
    orvane::FolderScan after = orvane::ScanInstallFolder(*folder);
    Require(after.error.empty() && after.entries == on_disk);
  }
  Require(!fixture.outsideWasTouched());
  return 0;
}
