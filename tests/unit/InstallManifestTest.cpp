#include "update/InstallManifest.h"

#include "base/BuildInfo.h"
#include "base/Paths.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TextLines.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

// A small install folder on disk, with a file of each mode and a link.
class InstallFolderTest : public ::testing::Test {
protected:
  void SetUp() override {
    folder_ = scratch_.file("Orvane");
    write("bin/orvane", "program", 0755);
    write("share/applications/com.tarnwick.orvane.desktop", "[Desktop Entry]\n", 0644);
    write("share/orvane/site/main.py", "print('site')\n", 0640);
    write("share/orvane/site/lib/module.py", "x = 1\n", 0644);
    link("lib", "share/orvane/site/lib64");
    std::optional<KeyPair> pair = GenerateKeyPair();
    ASSERT_TRUE(pair);
    key_ = *pair;
  }

  void write(const std::string& path, const std::string& text, mode_t mode) {
    std::string full = folder_ + "/" + path;
    TempDir::WriteFile(full, text);
    ASSERT_EQ(chmod(full.c_str(), mode), 0);
  }
  void link(const std::string& target, const std::string& path) {
    ASSERT_EQ(symlink(target.c_str(), (folder_ + "/" + path).c_str()), 0);
  }
  std::string sign(bool manifest_only = false) {
    return SignInstallFolder(folder_, key_.secret_key, kApplicationId, "2.5",
                             "202601021530-abcdef0", manifest_only);
  }
  FolderCheck check() { return CheckInstallFolder(folder_, key_.public_key, kApplicationId); }
  std::string manifest() { return TempDir::Read(folder_ + "/" + kManifestPath); }

  TempDir scratch_;
  std::string folder_;
  KeyPair key_;
};

TEST_F(InstallFolderTest, SigningListsEveryFileSortedWithHashModeAndLinks) {
  ASSERT_EQ(sign(), "");
  std::vector<std::string> lines = SplitLines(manifest());
  ASSERT_EQ(lines.size(), 9u) << manifest();
  EXPECT_EQ(lines[0], "app-id com.tarnwick.orvane");
  EXPECT_EQ(lines[1], "version 2.5");
  EXPECT_EQ(lines[2], "build 202601021530-abcdef0");
  // printf program | sha256sum
  EXPECT_EQ(lines[3],
            "1310ca2c8932dbd118668bd97442558a3e1f546b5e15c69699dfbd6024f548d8 755 bin/orvane");
  EXPECT_EQ(lines[4].substr(64), " 644 share/applications/com.tarnwick.orvane.desktop");
  EXPECT_EQ(lines[5].substr(64), " 644 share/orvane/site/lib/module.py");
  EXPECT_EQ(lines[6], "link lib share/orvane/site/lib64");
  EXPECT_EQ(lines[7].substr(64), " 640 share/orvane/site/main.py");
  EXPECT_EQ(lines[8].substr(64), " 644 share/orvane/update-key.pub");
  EXPECT_EQ(TempDir::Read(folder_ + "/" + kUpdateKeyPath), key_.public_key + "\n");
  EXPECT_TRUE(check().ok()) << check().message;
}

TEST_F(InstallFolderTest, ManifestTextRoundTripsThroughTheParser) {
  ASSERT_EQ(sign(), "");
  ParsedManifest parsed = ParseManifest(manifest());
  ASSERT_TRUE(parsed.manifest) << parsed.error;
  EXPECT_EQ(ManifestText(*parsed.manifest), manifest());
  EXPECT_EQ(parsed.manifest->version, "2.5");
  ASSERT_EQ(parsed.manifest->entries.size(), 6u);
  EXPECT_EQ(parsed.manifest->entries[0].mode, 0755u);
  EXPECT_EQ(parsed.manifest->entries[3].kind, EntryKind::kLink);
  EXPECT_EQ(parsed.manifest->entries[3].link_target, "lib");
}

TEST_F(InstallFolderTest, HostileFileNamesAreEscapedAndStillVerify) {
  write("share/orvane/site/two\nlines \\name", "odd", 0644);
  ASSERT_EQ(sign(), "");
  std::string text = manifest();
  EXPECT_NE(text.find(" 644 share/orvane/site/two\\x0alines\\x20\\x5cname\n"), std::string::npos)
      << text;
  EXPECT_EQ(SplitLines(text).size(), 10u); // still one line per file
  EXPECT_TRUE(check().ok()) << check().message;
}

TEST_F(InstallFolderTest, ManifestOnlySignsTheManifestAsItStands) {
  ASSERT_EQ(sign(), "");
  std::string edited = manifest();
  edited.replace(edited.find("version 2.5"), 11, "version 9.9");
  TempDir::WriteFile(folder_ + "/" + kManifestPath, edited);
  EXPECT_EQ(check().code, FolderCheckCode::kSignatureDoesNotVerify);
  ASSERT_EQ(sign(true), "");
  EXPECT_EQ(manifest(), edited);
  EXPECT_TRUE(check().ok()) << check().message;
}

TEST_F(InstallFolderTest, AnotherKeyGivesCode1) {
  ASSERT_EQ(sign(), "");
  std::optional<KeyPair> other = GenerateKeyPair();
  ASSERT_TRUE(other);
  FolderCheck result = CheckInstallFolder(folder_, other->public_key, kApplicationId);
  EXPECT_EQ(result.code, FolderCheckCode::kSignatureDoesNotVerify);
  EXPECT_EQ(result.message, "MANIFEST.sig does not verify under the trusted key");
}

TEST_F(InstallFolderTest, AMissingOrGarbledSignatureGivesCode1) {
  ASSERT_EQ(sign(), "");
  TempDir::WriteFile(folder_ + "/" + kManifestSignaturePath, "not base64 at all\n");
  EXPECT_EQ(check().code, FolderCheckCode::kSignatureDoesNotVerify);
  unlink((folder_ + "/" + kManifestSignaturePath).c_str());
  EXPECT_EQ(check().code, FolderCheckCode::kSignatureDoesNotVerify);
  EXPECT_EQ(check().message, "there is no readable MANIFEST.sig");
}

TEST_F(InstallFolderTest, AnotherAppIdGivesCode2) {
  ASSERT_EQ(SignInstallFolder(folder_, key_.secret_key, "com.example.other", "2.5", "b", false),
            "");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kOtherAppId);
  EXPECT_EQ(result.message,
            "the MANIFEST names the app com.example.other, not com.tarnwick.orvane");
}

TEST_F(InstallFolderTest, AMissingFileGivesCode3) {
  ASSERT_EQ(sign(), "");
  unlink((folder_ + "/share/orvane/site/main.py").c_str());
  EXPECT_EQ(check().code, FolderCheckCode::kListedFileMissing);
  EXPECT_EQ(check().message, "the listed file share/orvane/site/main.py is missing");
}

TEST_F(InstallFolderTest, AChangedFileGivesCode4) {
  ASSERT_EQ(sign(), "");
  TempDir::WriteFile(folder_ + "/bin/orvane", "program!");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kFileDiffers);
  EXPECT_EQ(result.message.rfind("the file bin/orvane is sha256 ", 0), 0u) << result.message;
}

TEST_F(InstallFolderTest, AModeChangeGivesCode4) {
  ASSERT_EQ(sign(), "");
  ASSERT_EQ(chmod((folder_ + "/share/orvane/site/main.py").c_str(), 0777), 0);
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kFileDiffers);
  EXPECT_NE(result.message.find("mode 777, the MANIFEST says sha256"), std::string::npos)
      << result.message;
}

TEST_F(InstallFolderTest, AFileReplacedByALinkGivesCode4) {
  ASSERT_EQ(sign(), "");
  unlink((folder_ + "/share/orvane/site/main.py").c_str());
  link("lib/module.py", "share/orvane/site/main.py");
  EXPECT_EQ(check().code, FolderCheckCode::kFileDiffers);
}

TEST_F(InstallFolderTest, AnAddedFileGivesCode5) {
  ASSERT_EQ(sign(), "");
  write("share/orvane/site/extra.py", "import os\n", 0644);
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kUnlistedFile);
  EXPECT_EQ(result.message, "the file share/orvane/site/extra.py is not in the MANIFEST");
}

TEST_F(InstallFolderTest, AFileAddedAfterTheLastListedOneGivesCode5) {
  ASSERT_EQ(sign(), "");
  write("zz-last", "", 0644);
  EXPECT_EQ(check().code, FolderCheckCode::kUnlistedFile);
}

TEST_F(InstallFolderTest, ALinkOutsideGivesCode6) {
  ASSERT_EQ(sign(), "");
  link("/etc/passwd", "share/orvane/site/passwd");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kLinkOutside);
  EXPECT_EQ(result.message,
            "the link share/orvane/site/passwd leads outside the folder (to /etc/passwd)");
}

TEST_F(InstallFolderTest, ARelativeLinkClimbingOutGivesCode6) {
  ASSERT_EQ(sign(), "");
  link("../../../..", "share/orvane/site/up");
  EXPECT_EQ(check().code, FolderCheckCode::kLinkOutside);
}

TEST_F(InstallFolderTest, LinksThatClimbOutThroughOtherLinksGiveCode6) {
  // Each looks inside when read alone; together they lead to the parent.
  link("..", "share/orvane/parent");               // share/orvane/parent -> share
  link("orvane/parent/..", "share/sneaky");        // -> share/.. = the folder itself, lexically
  link("orvane/parent/../..", "share/sneaky-out"); // lexically the folder's parent
  EXPECT_NE(sign(), "");
  ASSERT_EQ(unlink((folder_ + "/share/sneaky-out").c_str()), 0);
  link("parent/orvane", "share/orvane/loop"); // through a link, and inside
  EXPECT_EQ(sign(), "");
  EXPECT_TRUE(check().ok()) << check().message;
  // Lexically share/, really the folder's parent: sneaky is the folder itself.
  link("../../sneaky/..", "share/orvane/site/through");
  EXPECT_EQ(check().code, FolderCheckCode::kLinkOutside) << check().message;
}

TEST_F(InstallFolderTest, SigningRefusesALinkOutsideAndSpecialFiles) {
  link("/usr/bin/python3", "share/orvane/site/python");
  EXPECT_EQ(sign(), "refusing to sign share/orvane/site/python: the link leads outside the folder");
  unlink((folder_ + "/share/orvane/site/python").c_str());
  ASSERT_EQ(mkfifo((folder_ + "/share/orvane/pipe").c_str(), 0644), 0);
  EXPECT_EQ(sign(), "refusing to sign share/orvane/pipe: neither a file nor a link");
}

TEST_F(InstallFolderTest, SigningRefusesModesThatAreNeverInstalled) {
  for (mode_t mode : {0664, 0646, 04755, 02755, 01644}) {
    ASSERT_EQ(chmod((folder_ + "/share/orvane/site/main.py").c_str(), mode), 0);
    char text[16];
    snprintf(text, sizeof text, "%o", unsigned(mode));
    EXPECT_EQ(sign(), std::string("refusing to sign share/orvane/site/main.py: its mode ") + text +
                          " is never installed (only modes within 755)");
  }
  ASSERT_EQ(chmod((folder_ + "/share/orvane/site/main.py").c_str(), 0600), 0);
  EXPECT_EQ(sign(), "");
}

TEST_F(InstallFolderTest, SigningRefusesAFolderThatHoldsNoFile) {
  ASSERT_EQ(g_mkdir_with_parents((folder_ + "/share/empty/deeper").c_str(), 0755), 0);
  EXPECT_EQ(sign(), "refusing to sign share/empty: a folder that holds no file");
  write("share/empty/deeper/file", "x", 0644);
  EXPECT_EQ(sign(), "");
  EXPECT_TRUE(check().ok()) << check().message;
}

TEST_F(InstallFolderTest, AFolderHoldingNoListedFileGivesCode5) {
  ASSERT_EQ(sign(), "");
  ASSERT_EQ(g_mkdir((folder_ + "/share/orvane/site/empty").c_str(), 0755), 0);
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kUnlistedFile);
  EXPECT_EQ(result.message, "the folder share/orvane/site/empty holds no file of the MANIFEST");
  ASSERT_EQ(g_mkdir((folder_ + "/share/orvane/site/empty/too").c_str(), 0755), 0);
  EXPECT_EQ(check().code, FolderCheckCode::kUnlistedFile);
  // A folder whose only content is a listed link is covered.
  ASSERT_EQ(g_rmdir((folder_ + "/share/orvane/site/empty/too").c_str()), 0);
  ASSERT_EQ(g_rmdir((folder_ + "/share/orvane/site/empty").c_str()), 0);
  ASSERT_EQ(g_mkdir((folder_ + "/links").c_str(), 0755), 0);
  link("../bin/orvane", "links/orvane");
  ASSERT_EQ(sign(), "");
  EXPECT_TRUE(check().ok()) << check().message;
  EXPECT_EQ(check().version, "2.5");
}

TEST_F(InstallFolderTest, AListedModeThatIsNeverInstalledGivesCode4) {
  ASSERT_EQ(sign(), "");
  std::string text = manifest();
  std::string line = " 640 share/orvane/site/main.py\n";
  size_t at = text.find(line);
  ASSERT_NE(at, std::string::npos);
  text.replace(at, line.size(), " 660 share/orvane/site/main.py\n");
  TempDir::WriteFile(folder_ + "/" + kManifestPath, text);
  ASSERT_EQ(chmod((folder_ + "/share/orvane/site/main.py").c_str(), 0660), 0);
  ASSERT_EQ(sign(true), "");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kFileDiffers);
  EXPECT_EQ(result.message, "the MANIFEST gives the file share/orvane/site/main.py the mode 660, "
                            "which is never installed (only modes within 755)");
  EXPECT_EQ(result.version, "");
}

TEST_F(InstallFolderTest, SigningRefusesAFolderThatIsNoInstallFolder) {
  TempDir empty;
  EXPECT_EQ(SignInstallFolder(empty.path(), key_.secret_key, kApplicationId, "1", "b", false),
            "the folder has no share/orvane/ (is it an install folder?)");
  EXPECT_EQ(SignInstallFolder(folder_, "bm90IGEga2V5", kApplicationId, "1", "b", false),
            "the key file does not hold an Ed25519 secret key");
}

TEST_F(InstallFolderTest, AListedPathThroughALinkIsMissingAndNothingOutsideIsRead) {
  // A signed MANIFEST listing share/orvane/site/lib64/module.py: lib64 is a
  // link, so the file is not taken from where the link leads.
  ASSERT_EQ(sign(), "");
  std::string text = manifest();
  std::string line = SplitLines(text)[5]; // share/orvane/site/lib/module.py
  std::string through = line.substr(0, 69) + "share/orvane/site/lib64/module.py\n";
  std::string edited = text;
  // In path order: .../lib64, then .../lib64/module.py.
  edited.insert(edited.find('\n', edited.find("link lib ")) + 1, through);
  TempDir::WriteFile(folder_ + "/" + kManifestPath, edited);
  ASSERT_EQ(sign(true), "");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kListedFileMissing) << result.message;
}

TEST_F(InstallFolderTest, ManifestReachedThroughALinkedFolderIsNotRead) {
  // share/ is a link to a signed copy elsewhere: the check reads nothing there.
  ASSERT_EQ(sign(), "");
  std::string elsewhere = scratch_.file("elsewhere");
  ASSERT_EQ(rename((folder_ + "/share").c_str(), elsewhere.c_str()), 0);
  link(elsewhere, "share");
  FolderCheck result = check();
  EXPECT_EQ(result.code, FolderCheckCode::kSignatureDoesNotVerify);
  EXPECT_EQ(result.message, "there is no readable MANIFEST");
}

TEST_F(InstallFolderTest, SignedHostileManifestsAreRefusedAsMalformed) {
  ASSERT_EQ(sign(), "");
  const std::string header = "app-id com.tarnwick.orvane\nversion 1\nbuild b\n";
  const std::string hash(64, 'a');
  for (const std::string& body : {
           hash + " 644 ../outside\n",
           hash + " 644 /etc/passwd\n",
           hash + " 644 share/../../x\n",
           hash + " 644 a//b\n",
           hash + " 644 ./a\n",
           hash + " 644 b\n" + hash + " 644 a\n",
           hash + " 644 a\n" + hash + " 644 a\n",
           hash + " 99 a\n",
           hash + " 644 a b\n",
           hash + " 644 a\\x41\n",
           hash + " 644 a\\x4\n",
           hash + " 644 a\\\n",
           std::string(63, 'a') + " 644 a\n",
           std::string("link  a\n"),
           hash + " 644 share/orvane/MANIFEST\n",
       }) {
    TempDir::WriteFile(folder_ + "/" + kManifestPath, header + body);
    ASSERT_EQ(sign(true), "");
    FolderCheck result = check();
    EXPECT_EQ(result.code, FolderCheckCode::kSignatureDoesNotVerify) << body;
    EXPECT_EQ(result.message.rfind("the signed MANIFEST is malformed (line ", 0), 0u)
        << result.message;
  }
}

TEST(ManifestParserTest, RefusesBrokenHeadersAndUnterminatedText) {
  EXPECT_FALSE(ParseManifest("").manifest);
  EXPECT_FALSE(ParseManifest("app-id x\nversion 1\nbuild b").manifest);
  EXPECT_FALSE(ParseManifest("version 1\napp-id x\nbuild b\n").manifest);
  EXPECT_FALSE(ParseManifest("app-id x\nversion 1\n").manifest);
  EXPECT_FALSE(ParseManifest("app-id \nversion 1\nbuild b\n").manifest);
  EXPECT_FALSE(ParseManifest(std::string("app-id x\0y\nversion 1\nbuild b\n", 30)).manifest);
  ParsedManifest empty_list = ParseManifest("app-id x\nversion 1\nbuild b\n");
  ASSERT_TRUE(empty_list.manifest) << empty_list.error;
  EXPECT_TRUE(empty_list.manifest->entries.empty());
}

TEST(ManifestParserTest, ModesAreReadOnlyAsTheWriterWritesThem) {
  const std::string head = "app-id x\nversion 1\nbuild b\n";
  const std::string hash(64, 'a');
  ParsedManifest plain = ParseManifest(head + hash + " 644 a\n" + hash + " 0 b\n");
  ASSERT_TRUE(plain.manifest) << plain.error;
  EXPECT_EQ(plain.manifest->entries[0].mode, 0644u);
  EXPECT_EQ(plain.manifest->entries[1].mode, 0u);
  EXPECT_EQ(ManifestText(*plain.manifest), head + hash + " 644 a\n" + hash + " 0 b\n");
  for (const char* mode : {"0644", "00", "0000", "07"}) {
    ParsedManifest padded = ParseManifest(head + hash + " " + mode + " a\n");
    EXPECT_FALSE(padded.manifest) << mode;
    EXPECT_EQ(padded.error, "line 4: expected \"SHA256 MODE PATH\" or \"link TARGET PATH\"");
  }
}

TEST(ManifestParserTest, RefusesAHugeManifestUnread) {
  std::string huge = "app-id x\nversion 1\nbuild b\n";
  huge.resize(kManifestSizeLimit + 1, '\n');
  ParsedManifest parsed = ParseManifest(huge);
  EXPECT_FALSE(parsed.manifest);
  EXPECT_EQ(parsed.error, "line 0: larger than 33554432 bytes");
}

TEST(ManifestParserTest, EveryByteOfANameSurvivesTheRoundTrip) {
  std::string name = "dir/";
  for (int c = 1; c < 256; ++c)
    if (c != '/')
      name += char(c);
  Manifest manifest{"com.tarnwick.orvane", "1 beta", "b\\1", {}};
  manifest.entries.push_back({name, EntryKind::kFile, std::string(64, 'f'), 04755, ""});
  manifest.entries.push_back({name + "z", EntryKind::kLink, "", 0, "../t a\rget"});
  std::string text = ManifestText(manifest);
  EXPECT_EQ(SplitLines(text).size(), 5u);
  ParsedManifest parsed = ParseManifest(text);
  ASSERT_TRUE(parsed.manifest) << parsed.error;
  EXPECT_EQ(parsed.manifest->version, "1 beta");
  EXPECT_EQ(parsed.manifest->build, "b\\1");
  EXPECT_EQ(parsed.manifest->entries, manifest.entries);
}

TEST(SafeRelativePathTest, OnlyPlainPathsInsideTheFolder) {
  EXPECT_TRUE(IsSafeRelativePath("bin/orvane"));
  EXPECT_TRUE(IsSafeRelativePath("a/..b/c."));
  EXPECT_FALSE(IsSafeRelativePath(""));
  EXPECT_FALSE(IsSafeRelativePath("/bin"));
  EXPECT_FALSE(IsSafeRelativePath("bin/"));
  EXPECT_FALSE(IsSafeRelativePath("a/../b"));
  EXPECT_FALSE(IsSafeRelativePath(".."));
  EXPECT_FALSE(IsSafeRelativePath("./a"));
  EXPECT_FALSE(IsSafeRelativePath(std::string(5000, 'a')));
}

TEST(SignatureTest, DetachedSignatureVerifiesOnlyTheSignedTextUnderItsKey) {
  std::optional<KeyPair> pair = GenerateKeyPair();
  ASSERT_TRUE(pair);
  std::optional<std::string> signature = SignText("text", pair->secret_key);
  ASSERT_TRUE(signature);
  EXPECT_EQ(PublicKeyOf(pair->secret_key), pair->public_key);
  EXPECT_TRUE(SignatureVerifies("text", *signature, pair->public_key));
  EXPECT_TRUE(SignatureVerifies("text", *signature + "\n", pair->public_key + "\n"));
  EXPECT_FALSE(SignatureVerifies("text!", *signature, pair->public_key));
  EXPECT_FALSE(SignatureVerifies("text", *signature, "AAAA"));
  EXPECT_FALSE(SignatureVerifies("text", "", pair->public_key));
}

// Exits 0 when, without libsodium, no key is made, nothing is signed or
// verifies, a scan, a signing and a check fail saying why and change
// nothing, and the log says why once.
[[noreturn]] void SignAndCheckWithoutSodium(const std::string& folder) {
  const std::string missing = "libno-such-sodium-library.so.23";
  g_setenv("ORVANE_SODIUM_LIBRARY", missing.c_str(), true);
  LogCapture log;
  // Keys and a signature of the right lengths, in base64.
  const std::string public_key = std::string(43, 'A') + "=";
  const std::string secret_key = std::string(86, 'A') + "==";
  const std::string signature = std::string(86, 'B') + "==";
  std::string problems;
  auto require = [&problems](bool holds, const std::string& what) {
    if (!holds)
      problems += what + "\n";
  };
  auto names_missing = [&missing](const std::string& text, const std::string& start) {
    return text.starts_with(start) && text.find(missing) != std::string::npos;
  };
  require(!GenerateKeyPair(), "a key pair was made");
  require(!PublicKeyOf(secret_key), "a public key was derived");
  require(!SignText("text", secret_key), "a text was signed");
  require(!SignatureVerifies("text", signature, public_key), "a signature verified");
  FolderScan scan = ScanInstallFolder(folder);
  require(names_missing(scan.error, "files cannot be hashed: ") && scan.entries.empty(),
          "the scan: " + scan.error);
  std::string manifest = TempDir::Read(folder + "/" + kManifestPath);
  std::string signing = SignInstallFolder(folder, secret_key, kApplicationId, "2.5", "b1", false);
  require(names_missing(signing, "signatures cannot be made: "), "the signing: " + signing);
  require(TempDir::Read(folder + "/" + kManifestPath) == manifest &&
              !g_file_test((folder + "/" + kUpdateKeyPath).c_str(), G_FILE_TEST_EXISTS),
          "the signing wrote into the folder");
  FolderCheck check = CheckInstallFolder(folder, public_key, kApplicationId);
  require(check.code == FolderCheckCode::kSignatureDoesNotVerify &&
              names_missing(check.message, "signatures cannot be checked: "),
          "the check: " + check.message);
  std::vector<std::string> messages = log.messages();
  require(messages.size() == 1 &&
              names_missing(messages[0], "update: signatures cannot be made or checked ("),
          "the log said: " + TempDir::Read(log.path()));
  fprintf(stderr, "%s", problems.c_str());
  std::exit(problems.empty() ? 0 : 1);
}

TEST(SignatureTest, WithoutTheSodiumLibraryNothingIsSignedOrVerifiedAndTheLogSaysWhyOnce) {
  TempDir scratch;
  scratch.write("Orvane/bin/orvane", "program");
  scratch.write(std::string("Orvane/") + kManifestPath,
                std::string("app-id ") + kApplicationId + "\nversion 1\nbuild b1\n");
  scratch.write(std::string("Orvane/") + kManifestSignaturePath, std::string(86, 'B') + "==\n");
  // The library is opened once per process: all of this runs in a fresh one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(SignAndCheckWithoutSodium(scratch.file("Orvane")), ::testing::ExitedWithCode(0), "");
  // With the library, this process signs and checks as before.
  std::optional<KeyPair> pair = GenerateKeyPair();
  ASSERT_TRUE(pair);
  EXPECT_TRUE(SignatureVerifies("text", *SignText("text", pair->secret_key), pair->public_key));
}

TEST(InstallFolderPathTest, AnInstalledCopyIsTheParentOfBinHoldingShareOrvane) {
  TempDir scratch;
  scratch.write("Orvane/bin/orvane", "");
  scratch.write("Orvane/share/orvane/site/main.py", "");
  scratch.write("build/orvane", "");
  EXPECT_EQ(InstallFolderOf(scratch.file("Orvane/bin/orvane")), scratch.file("Orvane"));
  EXPECT_EQ(InstallFolderOf(scratch.file("build/orvane")), "");
  EXPECT_EQ(InstallFolderOf("bin/orvane"), "");
  scratch.write("Other/bin/orvane", "");
  EXPECT_EQ(InstallFolderOf(scratch.file("Other/bin/orvane")), "");
}

TEST(InstallFolderPathTest, ABuildTreeRunUsesTheSourceSite) {
  // The unit tests run from build/, which is no install folder.
  EXPECT_EQ(RunningInstallFolder(), "");
  EXPECT_EQ(BundledSiteFolder(), std::string(kBundledSiteFolder));
}

} // namespace
} // namespace orvane
