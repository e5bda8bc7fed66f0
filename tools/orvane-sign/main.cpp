// orvane-sign: makes the update key, signs an install folder, checks one.
//
//   orvane-sign keygen DIR
//   orvane-sign sign [--version V] [--manifest-only] KEYFILE FOLDER
//   orvane-sign verify FOLDER
//
// verify exits with the code of the failed check (docs/releasing.md).
#include "base/BuildInfo.h"
#include "update/InstallManifest.h"
#include "update/Libsodium.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace orvane;

constexpr int kUsageError = 64;
constexpr int kFailure = 70;

int Usage() {
  fprintf(stderr, "usage: orvane-sign keygen DIR\n"
                  "       orvane-sign sign [--version V] [--manifest-only] KEYFILE FOLDER\n"
                  "       orvane-sign verify FOLDER\n");
  return kUsageError;
}

// Writes a new file only: a key is never overwritten by accident.
bool WriteNewFile(const std::string& path, const std::string& text, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) {
    fprintf(stderr, "orvane-sign: cannot create %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  bool written =
      fchmod(fd, mode) == 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
  return close(fd) == 0 && written;
}

int Keygen(const std::string& folder) {
  std::optional<KeyPair> pair = GenerateKeyPair();
  if (!pair) {
    fprintf(stderr, "orvane-sign: libsodium could not start: %s\n", LibsodiumProblem().c_str());
    return kFailure;
  }
  std::string secret_path = folder + "/orvane-update.key";
  std::string public_path = folder + "/orvane-update.pub";
  if (!WriteNewFile(secret_path, pair->secret_key + "\n", 0600))
    return kFailure;
  if (!WriteNewFile(public_path, pair->public_key + "\n", 0644))
    return kFailure;
  printf("%s\n%s\n", secret_path.c_str(), public_path.c_str());
  return 0;
}

int Sign(const std::vector<std::string>& args) {
  std::string version = kVersion;
  bool manifest_only = false;
  std::vector<std::string> positional;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--version" && i + 1 < args.size())
      version = args[++i];
    else if (args[i] == "--manifest-only")
      manifest_only = true;
    else if (args[i].rfind("--", 0) == 0)
      return Usage();
    else
      positional.push_back(args[i]);
  }
  if (positional.size() != 2)
    return Usage();
  // A key file is a line of base64; anything much longer is not one.
  int fd = open(positional[0].c_str(), O_RDONLY | O_CLOEXEC);
  char buffer[4097];
  ssize_t got = fd >= 0 ? read(fd, buffer, sizeof buffer) : -1;
  if (fd >= 0)
    close(fd);
  if (got <= 0 || got > 4096) {
    fprintf(stderr, "orvane-sign: cannot read the key file %s\n", positional[0].c_str());
    return kFailure;
  }
  std::string secret(buffer, size_t(got));
  std::string error = SignInstallFolder(positional[1], secret, kApplicationId, version,
                                        kBuildIdentifier, manifest_only);
  if (!error.empty()) {
    fprintf(stderr, "orvane-sign: %s\n", error.c_str());
    return kFailure;
  }
  return 0;
}

int Verify(const std::string& folder) {
  std::optional<std::string> key = ReadFileInside(folder, kUpdateKeyPath, 4096);
  if (!key) {
    fprintf(stderr, "orvane-sign: %s: no readable %s\n", folder.c_str(), kUpdateKeyPath);
    return int(FolderCheckCode::kSignatureDoesNotVerify);
  }
  FolderCheck check = CheckInstallFolder(folder, *key, kApplicationId);
  if (!check.ok()) {
    fprintf(stderr, "orvane-sign: %s: not valid (code %d): %s\n", folder.c_str(), int(check.code),
            check.message.c_str());
    return int(check.code);
  }
  printf("%s: valid\n", folder.c_str());
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty())
    return Usage();
  std::string command = args.front();
  args.erase(args.begin());
  if (command == "keygen" && args.size() == 1)
    return Keygen(args[0]);
  if (command == "sign")
    return Sign(args);
  if (command == "verify" && args.size() == 1)
    return Verify(args[0]);
  return Usage();
}
