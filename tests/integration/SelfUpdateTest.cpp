// The update against real install folders signed with throwaway keys, real
// zip archives served on loopback, the real trash and a real relaunch shell.
#include "update/SelfUpdate.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"
#include "update/InstallManifest.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvane {
namespace {

struct ZipEntry {
  std::string path;
  std::string text;
  mode_t mode = 0644;
  std::optional<std::string> link; // a symbolic link to this target
  bool folder = false;
};

ZipEntry FileEntry(const std::string& path, const std::string& text) {
  return {path, text, 0644, std::nullopt, false};
}
ZipEntry LinkEntry(const std::string& path, const std::string& target) {
  return {path, "", 0, target, false};
}

std::string MakeZip(const std::vector<ZipEntry>& entries) {
  std::vector<char> buffer(64 * 1024 * 1024);
  size_t used = 0;
  struct archive* writer = archive_write_new();
  archive_write_set_format_zip(writer);
  archive_write_open_memory(writer, buffer.data(), buffer.size(), &used);
  for (const ZipEntry& e : entries) {
    struct archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, e.path.c_str());
    if (e.link) {
      archive_entry_set_filetype(entry, AE_IFLNK);
      archive_entry_set_symlink(entry, e.link->c_str());
      archive_entry_set_perm(entry, 0777);
    } else if (e.folder) {
      archive_entry_set_filetype(entry, AE_IFDIR);
      archive_entry_set_perm(entry, e.mode);
    } else {
      archive_entry_set_filetype(entry, AE_IFREG);
      archive_entry_set_perm(entry, e.mode);
      archive_entry_set_size(entry, e.text.size());
    }
    archive_write_header(writer, entry);
    if (!e.link && !e.folder)
      archive_write_data(writer, e.text.data(), e.text.size());
    archive_entry_free(entry);
  }
  archive_write_close(writer);
  archive_write_free(writer);
  return std::string(buffer.data(), used);
}

// Every file and link under `folder`, as zip entries below `prefix`.
void CollectEntries(const std::string& folder, const std::string& prefix,
                    std::vector<ZipEntry>& out) {
  GDir* dir = g_dir_open(folder.c_str(), 0, nullptr);
  ASSERT_TRUE(dir);
  while (const char* name = g_dir_read_name(dir)) {
    std::string full = folder + "/" + name;
    std::string path = prefix + "/" + name;
    struct stat info;
    lstat(full.c_str(), &info);
    if (S_ISLNK(info.st_mode)) {
      char target[4096];
      ssize_t n = readlink(full.c_str(), target, sizeof target);
      out.push_back({path, "", 0, std::string(target, n)});
    } else if (S_ISDIR(info.st_mode)) {
      out.push_back({path, "", 0755, std::nullopt, true});
      CollectEntries(full, path, out);
    } else {
      out.push_back({path, TempDir::Read(full), mode_t(info.st_mode & 07777), std::nullopt});
    }
  }
  g_dir_close(dir);
}

std::string Snapshot(const std::string& folder) {
  FolderScan scan = ScanInstallFolder(folder);
  std::string text = scan.error + TempDir::Read(folder + "/" + kManifestPath) +
                     TempDir::Read(folder + "/" + kManifestSignaturePath);
  for (const ManifestEntry& e : scan.entries)
    text += e.path + " " + e.sha256_hex + " " + std::to_string(e.mode) + " " + e.link_target + "\n";
  return text;
}

class SelfUpdateTest : public ::testing::Test {
protected:
  void SetUp() override {
    UseThrowawayHome();
    key_ = *GenerateKeyPair();
    install_ = scratch_.file("apps/Orvane");
    temp_ = scratch_.file("tmp");
    g_mkdir_with_parents(temp_.c_str(), 0700);
    marker_ = scratch_.file("relaunched");
    MakeApp(install_, "old", "1.0");
    ASSERT_EQ(SignInstallFolder(install_, key_.secret_key, kApplicationId, "1.0", "b1", false), "");
    update_ = std::make_unique<SelfUpdate>(seams());
  }

  SelfUpdateSeams seams() {
    return SelfUpdateSeams{install_,
                           temp_,
                           scheduler_,
                           [this](const Event& e) { events_.push_back(e); },
                           [this] { ++quits_; },
                           nullptr,
                           0,
                           0.5};
  }

  // An app whose program, when relaunched, writes its name into the marker.
  void MakeApp(const std::string& folder, const std::string& name, const std::string&) {
    TempDir::WriteFile(folder + "/bin/orvane",
                       "#!/bin/sh\necho " + name + " > '" + marker_ + "'\n");
    chmod((folder + "/bin/orvane").c_str(), 0755);
    TempDir::WriteFile(folder + "/share/orvane/site/main.py", "print('" + name + "')\n");
    TempDir::WriteFile(folder + "/share/applications/com.tarnwick.orvane.desktop", "[Desktop]\n");
  }

  // A signed release folder "Orvane" under a folder of its own.
  std::string MakeRelease(const std::string& secret_key, const std::string& app_id = kApplicationId,
                          const std::string& version = "2.0", const std::string& name = "new") {
    std::string folder = scratch_.file("release-" + std::to_string(++releases_) + "/Orvane");
    MakeApp(folder, name, version);
    EXPECT_EQ(SignInstallFolder(folder, secret_key, app_id, version, "b2", false), "");
    return folder;
  }
  std::string ZipOf(const std::string& folder, const std::string& prefix = "Orvane") {
    std::vector<ZipEntry> entries;
    CollectEntries(folder, prefix, entries);
    return MakeZip(entries);
  }

  // Serves the archive and runs the update until it is done.
  void UpdateWith(const std::string& zip, int status = 200) {
    server_ = std::make_unique<TestHttpServer>([zip, status](const HttpRequest&, HttpReply& r) {
      r.status = status;
      r.body = status == 200 ? zip : "<html>not here</html>";
    });
    update_->updateFrom(server_->url("/Orvane-2.0-linux-x86_64.zip"));
    ASSERT_TRUE(SpinUntil([this] { return done(); }));
  }
  bool done() const { return !events_.empty() && events_.back()["type"] == "updateDone"; }
  std::string error() const { return events_.back().value("error", ""); }
  std::vector<std::string> stages() const {
    std::vector<std::string> out;
    for (const Event& e : events_)
      out.push_back(e.value("stage", e.dump()));
    return out;
  }
  // Everything the temporary folder holds besides the work folder.
  std::vector<std::string> TempNames() {
    std::vector<std::string> names;
    GDir* dir = g_dir_open(temp_.c_str(), 0, nullptr);
    while (const char* name = g_dir_read_name(dir))
      names.push_back(name);
    g_dir_close(dir);
    return names;
  }

  LogCapture log_;
  TempDir scratch_;
  KeyPair key_;
  std::string install_, temp_, marker_;
  VirtualScheduler scheduler_;
  std::vector<Event> events_;
  int quits_ = 0;
  int releases_ = 0;
  std::unique_ptr<SelfUpdate> update_;
  std::unique_ptr<TestHttpServer> server_;
};

TEST_F(SelfUpdateTest, AGoodUpdateSwapsTheFolderRelaunchesAndQuits) {
  std::string release = MakeRelease(key_.secret_key);
  std::string expected = Snapshot(release);
  UpdateWith(ZipOf(release));
  ASSERT_EQ(events_.size(), 5u) << events_.back().dump();
  EXPECT_EQ(stages(),
            (std::vector<std::string>{"downloading", "unpacking", "checking signature",
                                      "installing", R"({"ok":true,"type":"updateDone"})"}));
  for (size_t i = 0; i < 4; ++i)
    EXPECT_EQ(events_[i]["type"], "updateProgress");
  EXPECT_EQ(Snapshot(install_), expected);
  EXPECT_TRUE(CheckInstallFolder(install_, key_.public_key, kApplicationId).ok());
  // The old copy and the work folder are gone; nothing is left beside.
  EXPECT_TRUE(TempNames().empty());
  EXPECT_FALSE(g_file_test(update_->lastWorkFolder().c_str(), G_FILE_TEST_EXISTS));
  GDir* apps = g_dir_open(scratch_.file("apps").c_str(), 0, nullptr);
  std::vector<std::string> beside;
  while (const char* name = g_dir_read_name(apps))
    beside.push_back(name);
  g_dir_close(apps);
  EXPECT_EQ(beside, std::vector<std::string>{"Orvane"});
  // The quit comes 0.5 s after success, not before.
  scheduler_.advance(0.49);
  EXPECT_EQ(quits_, 0);
  scheduler_.advance(0.02);
  EXPECT_EQ(quits_, 1);
  // The shell starts the new program from the same path.
  ASSERT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
  std::vector<std::string> lines = log_.messages();
  std::vector<std::string> update_lines;
  for (const std::string& line : lines)
    if (line.rfind("update", 0) == 0)
      update_lines.push_back(line);
  EXPECT_EQ(update_lines,
            (std::vector<std::string>{"update: downloading", "update: unpacking",
                                      "update: checking signature", "update: installing",
                                      "update: installed, relaunching"}));
}

TEST_F(SelfUpdateTest, TheRelaunchGetsThePathAsAnArgumentNotAsCommandText) {
  std::vector<std::string> argv = RelaunchArguments("/opt/my apps/Orvane/bin/orvane", 1.5);
  EXPECT_EQ(argv, (std::vector<std::string>{"/bin/sh", "-c", "sleep 1.5; exec \"$0\"",
                                            "/opt/my apps/Orvane/bin/orvane"}));
  // Run for real: a program under a path full of what a shell would read
  // starts, and nothing of its path is run.
  std::string folder = scratch_.file("a'b\"c $HOME `touch x` $(touch y); d & e | f > g\\h");
  std::string program = folder + "/orvane";
  TempDir::WriteFile(program, "#!/bin/sh\necho \"started as $0\" > '" + marker_ + "'\n");
  chmod(program.c_str(), 0755);
  std::vector<std::string> run = RelaunchArguments(program, 0);
  std::vector<char*> args;
  for (std::string& a : run)
    args.push_back(a.data());
  args.push_back(nullptr);
  int status = -1;
  ASSERT_TRUE(g_spawn_sync(folder.c_str(), args.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr,
                           nullptr, nullptr, &status, nullptr));
  EXPECT_TRUE(g_spawn_check_wait_status(status, nullptr));
  EXPECT_EQ(TempDir::Read(marker_), "started as " + program + "\n");
  EXPECT_EQ(NamesIn(folder), std::set<std::string>{"orvane"});
}

TEST_F(SelfUpdateTest, NotFoundFailsWithTheStatusAndLeavesNoFile) {
  std::string before = Snapshot(install_);
  UpdateWith("", 404);
  EXPECT_EQ(stages(),
            (std::vector<std::string>{
                "downloading",
                R"x({"error":"download failed (HTTP 404)","ok":false,"type":"updateDone"})x"}));
  EXPECT_TRUE(TempNames().empty());
  EXPECT_EQ(Snapshot(install_), before);
  EXPECT_EQ(log_.messages().back(), "update failed: download failed (HTTP 404)");
  EXPECT_EQ(scheduler_.pending(), 0u);
}

TEST_F(SelfUpdateTest, AnAppOneLevelDownIsNoApp) {
  UpdateWith(ZipOf(MakeRelease(key_.secret_key), "release/Orvane"));
  EXPECT_EQ(error(), "the download held no app");
}

TEST_F(SelfUpdateTest, ABodyThatIsNotAZipHoldsNoApp) {
  UpdateWith(std::string(3 << 20, '\x7f'));
  EXPECT_EQ(error(), "the download held no app");
}

TEST_F(SelfUpdateTest, OfSeveralAppsTheLastInNameOrderIsChecked) {
  std::string good = MakeRelease(key_.secret_key);
  std::string other = MakeRelease(GenerateKeyPair()->secret_key);
  std::vector<ZipEntry> entries;
  CollectEntries(other, "A-Orvane", entries);
  CollectEntries(good, "B-Orvane", entries);
  UpdateWith(MakeZip(entries));
  EXPECT_EQ(events_.back()["ok"], true) << events_.back().dump();
  // The relaunch shell runs the installed copy before the scratch folder goes.
  EXPECT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

class RefusedUpdateTest : public SelfUpdateTest {
protected:
  void ExpectRefused(const std::string& zip, const std::string& message) {
    std::string before = Snapshot(install_);
    UpdateWith(zip);
    EXPECT_EQ(error(), message);
    EXPECT_EQ(Snapshot(install_), before);
    EXPECT_EQ(quits_, 0);
    EXPECT_EQ(scheduler_.pending(), 0u);
    EXPECT_EQ(TempDir::Read(marker_), "");
  }
};

TEST_F(RefusedUpdateTest, AnotherKeyIsCode1) {
  ExpectRefused(ZipOf(MakeRelease(GenerateKeyPair()->secret_key)),
                "the downloaded app is not signed like this one (code 1)");
  // The work folder stays after a failure.
  EXPECT_TRUE(g_file_test(update_->lastWorkFolder().c_str(), G_FILE_TEST_IS_DIR));
}

TEST_F(RefusedUpdateTest, AnotherAppIdIsCode2) {
  ExpectRefused(ZipOf(MakeRelease(key_.secret_key, "com.example.other")),
                "the downloaded app is not signed like this one (code 2)");
}

TEST_F(RefusedUpdateTest, AFileChangedAfterSigningIsCode4) {
  std::string release = MakeRelease(key_.secret_key);
  TempDir::WriteFile(release + "/share/orvane/site/main.py", "print('evil')\n");
  ExpectRefused(ZipOf(release), "the downloaded app is not signed like this one (code 4)");
}

TEST_F(RefusedUpdateTest, AnAddedFileIsCode5) {
  std::string release = MakeRelease(key_.secret_key);
  TempDir::WriteFile(release + "/bin/helper", "extra\n");
  ExpectRefused(ZipOf(release), "the downloaded app is not signed like this one (code 5)");
}

class HostileArchiveTest : public RefusedUpdateTest {
protected:
  void ExpectNothingOutside(const std::vector<ZipEntry>& hostile) {
    std::vector<ZipEntry> entries;
    CollectEntries(MakeRelease(key_.secret_key), "Orvane", entries);
    entries.insert(entries.end(), hostile.begin(), hostile.end());
    size_t folders_before = TempNames().size();
    ExpectRefused(MakeZip(entries), "could not unpack the download");
    EXPECT_FALSE(g_file_test(scratch_.file("escaped").c_str(), G_FILE_TEST_EXISTS));
    EXPECT_FALSE(g_file_test(scratch_.file("apps/escaped").c_str(), G_FILE_TEST_EXISTS));
    // Only the update's own work folder was added, and it stays for a look.
    std::vector<std::string> names = TempNames();
    ASSERT_EQ(names.size(), folders_before + 1);
    EXPECT_NE(
        std::find(names.begin(), names.end(), update_->lastWorkFolder().substr(temp_.size() + 1)),
        names.end());
  }
};

TEST_F(HostileArchiveTest, DotDotEntryIsRefused) {
  ExpectNothingOutside({FileEntry("Orvane/../../escaped", "x")});
  ExpectNothingOutside({FileEntry("../escaped", "x")});
}

TEST_F(HostileArchiveTest, AbsoluteEntryIsRefused) {
  ExpectNothingOutside({FileEntry(scratch_.file("escaped"), "x")});
}

TEST_F(HostileArchiveTest, SymlinkOutsideIsRefusedAndNotWrittenThrough) {
  ExpectNothingOutside({LinkEntry("out", scratch_.path()), FileEntry("out/escaped", "x")});
  ExpectNothingOutside({LinkEntry("Orvane/up", "../../apps"), FileEntry("Orvane/up/escaped", "x")});
}

TEST_F(HostileArchiveTest, LinksThatClimbOutTogetherAreRefused) {
  ExpectNothingOutside({LinkEntry("here", "."), LinkEntry("up", "here/..")});
  ExpectNothingOutside({LinkEntry("up", "later/.."), LinkEntry("later", ".")});
}

TEST(UnpackLinksTest, ALinkChainClimbingOutIsRefusedAndRemoved) {
  TempDir scratch;
  std::string zip_path = scratch.path() + "/app.zip";
  std::string zip = MakeZip({LinkEntry("here", "."), LinkEntry("up", "here/.."),
                             LinkEntry("bin", "here"), FileEntry("a", "x")});
  ASSERT_TRUE(g_file_set_contents(zip_path.c_str(), zip.data(), gssize(zip.size()), nullptr));
  std::string into = scratch.path() + "/out";
  ASSERT_EQ(g_mkdir(into.c_str(), 0700), 0);
  EXPECT_FALSE(UnpackArchive(zip_path, into));
  EXPECT_FALSE(g_file_test((into + "/up").c_str(), G_FILE_TEST_IS_SYMLINK));
  // The links that stay inside, and the files, are left as unpacked.
  EXPECT_TRUE(g_file_test((into + "/here").c_str(), G_FILE_TEST_IS_SYMLINK));
  EXPECT_TRUE(g_file_test((into + "/bin").c_str(), G_FILE_TEST_IS_SYMLINK));
  EXPECT_EQ(TempDir::Read(into + "/a"), "x");
}

TEST_F(HostileArchiveTest, ADeviceEntryNeverBecomesADevice) {
  // libarchive writes no FIFO into a zip, so the entry is written as a file
  // and its central directory record then says "FIFO" in the Unix mode bits.
  // The zip reader hands such an entry over as a plain file, so what lands
  // on disk is an empty regular file and the download holds no app.
  std::string zip = MakeZip({FileEntry("fifo", "")});
  size_t record = zip.find(std::string("PK\x01\x02", 4));
  ASSERT_NE(record, std::string::npos);
  const uint32_t fifo_mode = (S_IFIFO | 0644) << 16;
  for (int i = 0; i < 4; ++i)
    zip[record + 38 + i] = static_cast<char>((fifo_mode >> (8 * i)) & 0xff);
  ExpectRefused(zip, "the download held no app");
  struct stat info;
  ASSERT_EQ(lstat((update_->lastWorkFolder() + "/fifo").c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(info.st_size, 0);
}

TEST_F(SelfUpdateTest, AFailingFinalMovePutsTheOldCopyBack) {
  std::string before = Snapshot(install_);
  SelfUpdateSeams failing = seams();
  failing.move_into_place = [](const std::string&, const std::string&) {
    return std::string("No space left on device");
  };
  update_ = std::make_unique<SelfUpdate>(failing);
  UpdateWith(ZipOf(MakeRelease(key_.secret_key)));
  EXPECT_EQ(error(), "could not install the new app: No space left on device");
  EXPECT_EQ(Snapshot(install_), before);
  EXPECT_EQ(quits_, 0);
}

// Starts a child in `folder` that lives until ended; its pid is ours to reap.
pid_t StartIn(const std::string& folder, std::vector<std::string> args) {
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  GPid pid = 0;
  EXPECT_TRUE(g_spawn_async(folder.c_str(), argv.data(), nullptr,
                            GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD), nullptr,
                            nullptr, &pid, nullptr));
  return pid;
}
// Reaps the child once it has ended; true from then on.
bool Ended(pid_t pid) {
  static std::set<pid_t> reaped;
  if (!reaped.count(pid) && waitpid(pid, nullptr, WNOHANG) == pid)
    reaped.insert(pid);
  return reaped.count(pid) > 0;
}

TEST_F(SelfUpdateTest, TheOldCopysSiteServerIsEndedAndNothingElse) {
  std::string site = install_ + "/share/orvane/site";
  std::vector<std::string> server = {
      "python3", "-c",  "import time; time.sleep(60)", ".venv/bin/uvicorn", "main:app",
      "--port",  "8000"};
  pid_t old_server = StartIn(site, server);
  pid_t shell_in_site = StartIn(site, {"sleep", "60"});
  pid_t server_elsewhere = StartIn(scratch_.path(), server);
  // Each has its working folder before the update looks.
  ASSERT_TRUE(SpinUntil([&] {
    GCharPtr cwd(
        g_file_read_link(("/proc/" + std::to_string(old_server) + "/cwd").c_str(), nullptr));
    return cwd && std::string(cwd.get()) == site;
  }));

  UpdateWith(ZipOf(MakeRelease(key_.secret_key)));
  ASSERT_TRUE(events_.back().value("ok", false)) << events_.back().dump();
  EXPECT_TRUE(SpinUntil([&] { return Ended(old_server); }));
  std::vector<std::string> lines = log_.messages();
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "bundled site: ended its server (pid " + std::to_string(old_server) +
                          ") that ran from the old copy"),
            lines.end())
      << testing::PrintToString(lines);
  EXPECT_FALSE(Ended(shell_in_site));
  EXPECT_FALSE(Ended(server_elsewhere));
  for (pid_t pid : {shell_in_site, server_elsewhere}) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
}

// A work folder on another file system than the install folder: the new app
// is copied beside the old one, then renamed into place.
class AcrossFileSystemsTest : public SelfUpdateTest {
protected:
  void SetUp() override {
    SelfUpdateTest::SetUp();
    char pattern[] = "/dev/shm/orvane-test-XXXXXX";
    if (!g_mkdtemp(pattern))
      GTEST_SKIP() << "no /dev/shm to put a work folder on another file system";
    other_ = pattern;
    struct stat shm, apps;
    if (stat(other_.c_str(), &shm) != 0 || stat(scratch_.file("apps").c_str(), &apps) != 0 ||
        shm.st_dev == apps.st_dev)
      GTEST_SKIP() << "/dev/shm is on the same file system as " << scratch_.path();
    temp_ = other_;
    update_ = std::make_unique<SelfUpdate>(seams());
  }
  void TearDown() override {
    if (!other_.empty())
      RemoveTree(other_);
  }
  std::vector<std::string> Beside() {
    std::vector<std::string> names;
    GDir* apps = g_dir_open(scratch_.file("apps").c_str(), 0, nullptr);
    while (const char* name = g_dir_read_name(apps))
      names.push_back(name);
    g_dir_close(apps);
    return names;
  }
  std::string other_;
};

TEST_F(AcrossFileSystemsTest, TheNewAppIsCopiedBesideThenSwappedIn) {
  std::string release = MakeRelease(key_.secret_key);
  std::string expected = Snapshot(release);
  UpdateWith(ZipOf(release));
  ASSERT_TRUE(events_.back().value("ok", false)) << events_.back().dump();
  EXPECT_EQ(Snapshot(install_), expected);
  EXPECT_TRUE(CheckInstallFolder(install_, key_.public_key, kApplicationId).ok());
  // Neither the staged copy nor the old app nor the work folder is left.
  EXPECT_EQ(Beside(), std::vector<std::string>{"Orvane"});
  EXPECT_TRUE(TempNames().empty());
  ASSERT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

TEST_F(AcrossFileSystemsTest, AFailingFinalMoveRemovesTheCopyAndPutsTheOldAppBack) {
  std::string before = Snapshot(install_);
  SelfUpdateSeams failing = seams();
  std::string moved_from;
  failing.move_into_place = [&moved_from](const std::string& from, const std::string&) {
    moved_from = from;
    return std::string("Input/output error");
  };
  update_ = std::make_unique<SelfUpdate>(failing);
  UpdateWith(ZipOf(MakeRelease(key_.secret_key)));
  EXPECT_EQ(error(), "could not install the new app: Input/output error");
  // What was to be moved was the copy beside the install folder.
  EXPECT_EQ(moved_from.rfind(scratch_.file("apps/Orvane.new-"), 0), 0u) << moved_from;
  EXPECT_EQ(Snapshot(install_), before);
  EXPECT_EQ(Beside(), std::vector<std::string>{"Orvane"});
  EXPECT_EQ(quits_, 0);
}

TEST_F(SelfUpdateTest, ABuildTreeRunCannotReadItsOwnSignature) {
  g_unlink((install_ + "/" + kManifestPath).c_str());
  UpdateWith(ZipOf(MakeRelease(key_.secret_key)));
  EXPECT_EQ(stages().size(), 4u);
  EXPECT_EQ(error(), "could not read this app's own signature");
  EXPECT_TRUE(g_file_test((install_ + "/bin/orvane").c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(SelfUpdateTest, ARunFromATemporaryMountFailsBeforeAnyDownload) {
  char made[] = "/tmp/.mount_orvaneXXXXXX";
  ASSERT_TRUE(mkdtemp(made));
  std::string mount = made;
  SelfUpdateSeams translocated = seams();
  translocated.install_folder = mount + "/Orvane";
  update_ = std::make_unique<SelfUpdate>(translocated);
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = "zip"; });
  update_->updateFrom(server.url("/a.zip"));
  g_rmdir(mount.c_str());
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(error(), kAppTranslocatedMessage);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_TRUE(TempNames().empty());
}

TEST_F(SelfUpdateTest, OnlyATemporaryMountOrReadOnlyFileSystemCountsAsTranslocated) {
  EXPECT_FALSE(IsTranslocated(install_));
  EXPECT_TRUE(IsTranslocated("/tmp/.mount_abc/Orvane"));
}

TEST_F(SelfUpdateTest, AFolderWhoseParentIsNotWritableFailsBeforeAnyDownload) {
  if (geteuid() == 0)
    GTEST_SKIP() << "root may write every folder";
  chmod(scratch_.file("apps").c_str(), 0555);
  update_->updateFrom("http://127.0.0.1:9/a.zip");
  chmod(scratch_.file("apps").c_str(), 0755);
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(error(), kFolderNotWritableMessage);
}

TEST_F(SelfUpdateTest, AnAddressThatIsNoUrlFails) {
  for (const char* address : {"", "not a url", "http://[::1", "\x01\x02"}) {
    events_.clear();
    update_->updateFrom(address);
    ASSERT_EQ(events_.size(), 1u) << address;
    EXPECT_EQ(error(), "no download address");
  }
}

TEST_F(SelfUpdateTest, ARefusedConnectionFailsWithTheTransportError) {
  update_->updateFrom("http://127.0.0.1:9/a.zip");
  ASSERT_TRUE(SpinUntil([this] { return done(); }));
  EXPECT_EQ(events_.back()["ok"], false);
  EXPECT_NE(error(), "");
  EXPECT_EQ(error().find("download failed (HTTP"), std::string::npos);
}

// ---- a shared temporary folder: what another user there can do

// What another local user can do in a shared temporary folder while the
// update downloads: make the work folder first and put a signed copy of
// their own in it ("ZZZ", last in name order), and lay a link where the
// download would go. Neither may reach the install folder or the victim.
TEST_F(SelfUpdateTest, AWorkFolderPlantedDuringTheDownloadIsNeverUsed) {
  std::string planted = MakeRelease(key_.secret_key, kApplicationId, "2.0", "planted");
  std::string release = MakeRelease(key_.secret_key);
  std::string expected = Snapshot(release);
  std::string victim = scratch_.write("victim", "precious\n");
  // Names an earlier build would have used, already there before the update.
  std::string old_work = temp_ + "/orvane-update-00000000-0000-0000-0000-000000000000";
  ASSERT_EQ(g_mkdir(old_work.c_str(), 0777), 0);
  ASSERT_EQ(CopyFolder(planted, old_work + "/ZZZ"), "");
  ASSERT_EQ(symlink(victim.c_str(), (temp_ + "/orvane-update-X.download").c_str()), 0);
  std::string zip = ZipOf(release);
  bool planted_work_folder = false;
  server_ = std::make_unique<TestHttpServer>([&](const HttpRequest&, HttpReply& r) {
    std::string work = update_->lastWorkFolder();
    // Another user can make a folder of that name only if it is not there yet.
    if (g_mkdir(work.c_str(), 0777) == 0)
      planted_work_folder = CopyFolder(planted, work + "/ZZZ").empty();
    symlink(victim.c_str(), (work + ".download").c_str());
    r.body = zip;
  });
  update_->updateFrom(server_->url("/Orvane-2.0-linux-x86_64.zip"));
  ASSERT_TRUE(SpinUntil([this] { return done(); }));
  EXPECT_FALSE(planted_work_folder) << "the work folder did not exist during the download";
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  EXPECT_EQ(Snapshot(install_), expected);
  EXPECT_TRUE(TempDir::Read(victim) == "precious\n") << "the victim was written through a link";
  ASSERT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
  // What was there before is left alone, and not used.
  EXPECT_EQ(NamesIn(old_work), std::set<std::string>{"ZZZ"});
}

TEST_F(SelfUpdateTest, TheWorkFolderIsOursAloneBeforeTheDownloadStarts) {
  std::string zip = ZipOf(MakeRelease(key_.secret_key));
  struct stat during = {};
  bool seen = false;
  std::vector<std::string> names_during;
  server_ = std::make_unique<TestHttpServer>([&](const HttpRequest&, HttpReply& r) {
    seen = lstat(update_->lastWorkFolder().c_str(), &during) == 0;
    names_during = TempNames();
    r.body = zip;
  });
  update_->updateFrom(server_->url("/Orvane-2.0-linux-x86_64.zip"));
  ASSERT_TRUE(SpinUntil([this] { return done(); }));
  ASSERT_TRUE(seen) << "no work folder while downloading";
  EXPECT_TRUE(S_ISDIR(during.st_mode));
  EXPECT_EQ(during.st_uid, geteuid());
  EXPECT_EQ(during.st_mode & 07777, 0700u);
  // Nothing else in the temporary folder tells its name.
  EXPECT_EQ(names_during, std::vector<std::string>{FileName(update_->lastWorkFolder())});
  EXPECT_EQ(events_.back()["ok"], true) << events_.back().dump();
}

TEST(PrivateFolderTest, AnExistingFolderOrLinkIsNeverTakenOver) {
  TempDir scratch;
  std::string theirs = scratch.file("theirs");
  ASSERT_EQ(g_mkdir(theirs.c_str(), 0777), 0);
  struct stat before;
  ASSERT_EQ(stat(theirs.c_str(), &before), 0);
  ASSERT_EQ(symlink(theirs.c_str(), scratch.file("link").c_str()), 0);
  ASSERT_EQ(symlink(scratch.file("nowhere").c_str(), scratch.file("dangling").c_str()), 0);
  for (const char* name : {"theirs", "link", "dangling"}) {
    std::string error;
    EXPECT_FALSE(MakeFolderOfOurOwn(scratch.file(name), error)) << name;
    EXPECT_NE(error, "") << name;
  }
  EXPECT_TRUE(NamesIn(theirs).empty());
  EXPECT_FALSE(g_file_test(scratch.file("nowhere").c_str(), G_FILE_TEST_EXISTS));
  struct stat info;
  ASSERT_EQ(stat(theirs.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode, before.st_mode);

  std::string error;
  ASSERT_TRUE(MakeFolderOfOurOwn(scratch.file("ours"), error)) << error;
  ASSERT_EQ(lstat(scratch.file("ours").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0700u);
  EXPECT_EQ(info.st_uid, geteuid());
}

// ---- modes come from the signature, never from the archive

// Every folder and file under `folder` with its mode, links left out.
std::vector<std::pair<std::string, mode_t>> ModesUnder(const std::string& folder) {
  std::vector<std::pair<std::string, mode_t>> out;
  struct stat info;
  if (lstat(folder.c_str(), &info) != 0 || S_ISLNK(info.st_mode))
    return out;
  out.push_back({folder, info.st_mode});
  if (S_ISDIR(info.st_mode))
    for (const std::string& name : NamesIn(folder))
      for (auto& found : ModesUnder(folder + "/" + name))
        out.push_back(found);
  return out;
}

void ExpectNothingWritableByOthers(const std::string& folder) {
  std::vector<std::pair<std::string, mode_t>> modes = ModesUnder(folder);
  ASSERT_FALSE(modes.empty());
  for (const auto& [path, mode] : modes) {
    EXPECT_EQ(mode & 07022, 0u) << path << " has mode " << std::oct << (mode & 07777);
    if (S_ISDIR(mode)) {
      EXPECT_EQ(mode & 07777, 0755u) << path;
    }
  }
}

class ArchiveModesTest : public SelfUpdateTest {
protected:
  // The release as an archive whose folders (the top one too) say
  // `folder_mode` and whose files carry `file_bits` besides their own.
  std::string ZipWithModes(const std::string& release, mode_t folder_mode, mode_t file_bits) {
    std::vector<ZipEntry> entries = {{"Orvane", "", folder_mode, std::nullopt, true}};
    CollectEntries(release, "Orvane", entries);
    for (ZipEntry& e : entries) {
      if (e.folder)
        e.mode = folder_mode;
      else if (!e.link)
        e.mode |= file_bits;
    }
    return MakeZip(entries);
  }
};

TEST_F(ArchiveModesTest, FoldersThatTheArchiveMakes0777AreInstalled0755) {
  std::string release = MakeRelease(key_.secret_key);
  std::string expected = Snapshot(release);
  UpdateWith(ZipWithModes(release, 0777, 0));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  EXPECT_EQ(Snapshot(install_), expected);
  ExpectNothingWritableByOthers(install_);
  EXPECT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

TEST_F(ArchiveModesTest, FilesGetTheSignedModeNotTheArchivesWriteBits) {
  std::string release = MakeRelease(key_.secret_key);
  std::string expected = Snapshot(release);
  UpdateWith(ZipWithModes(release, 0775, 0022));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  EXPECT_EQ(Snapshot(install_), expected);
  EXPECT_TRUE(CheckInstallFolder(install_, key_.public_key, kApplicationId).ok());
  ExpectNothingWritableByOthers(install_);
  EXPECT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

TEST_F(ArchiveModesTest, ArchiveFolderModesThatLockUsOutStillInstall0755) {
  std::string release = MakeRelease(key_.secret_key);
  UpdateWith(ZipWithModes(release, 0500, 0));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  ExpectNothingWritableByOthers(install_);
  EXPECT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

TEST_F(RefusedUpdateTest, AFileThatTheManifestSignsGroupWritableIsCode4) {
  std::string release = MakeRelease(key_.secret_key);
  std::string manifest_path = release + "/" + kManifestPath;
  std::string text = TempDir::Read(manifest_path);
  std::string line = " 644 share/orvane/site/main.py\n";
  size_t at = text.find(line);
  ASSERT_NE(at, std::string::npos) << text;
  text.replace(at, line.size(), " 664 share/orvane/site/main.py\n");
  TempDir::WriteFile(manifest_path, text);
  chmod((release + "/share/orvane/site/main.py").c_str(), 0664);
  ASSERT_EQ(SignInstallFolder(release, key_.secret_key, kApplicationId, "", "", true), "");
  ExpectRefused(ZipOf(release), "the downloaded app is not signed like this one (code 4)");
}

TEST_F(RefusedUpdateTest, AnEmptyFolderThatTheManifestDoesNotCoverIsCode5) {
  std::vector<ZipEntry> entries;
  CollectEntries(MakeRelease(key_.secret_key), "Orvane", entries);
  entries.push_back({"Orvane/share/orvane/empty", "", 0755, std::nullopt, true});
  ExpectRefused(MakeZip(entries), "the downloaded app is not signed like this one (code 5)");
}

TEST_F(RefusedUpdateTest, FoldersHoldingOnlyFoldersAreCode5) {
  std::vector<ZipEntry> entries;
  CollectEntries(MakeRelease(key_.secret_key), "Orvane", entries);
  entries.push_back({"Orvane/lib", "", 0755, std::nullopt, true});
  entries.push_back({"Orvane/lib/deeper", "", 0755, std::nullopt, true});
  entries.push_back({"Orvane/lib/deeper/still", "", 0755, std::nullopt, true});
  ExpectRefused(MakeZip(entries), "the downloaded app is not signed like this one (code 5)");
}

// ---- no downgrade

TEST_F(RefusedUpdateTest, AnOlderSignedReleaseIsRefused) {
  ExpectRefused(ZipOf(MakeRelease(key_.secret_key, kApplicationId, "0.9")),
                "the download is older than this app (0.9 < 1.0)");
  EXPECT_EQ(
      stages(),
      (std::vector<std::string>{
          "downloading", "unpacking", "checking signature",
          R"x({"error":"the download is older than this app (0.9 < 1.0)","ok":false,"type":"updateDone"})x"}));
  EXPECT_EQ(log_.messages().back(),
            "update failed: the download is older than this app (0.9 < 1.0)");
}

TEST_F(RefusedUpdateTest, AReleaseCandidateOfThisVersionIsOlder) {
  ExpectRefused(ZipOf(MakeRelease(key_.secret_key, kApplicationId, "1.0-rc1")),
                "the download is older than this app (1.0-rc1 < 1.0)");
}

TEST_F(SelfUpdateTest, TheSameVersionIsInstalledAgain) {
  std::string release = MakeRelease(key_.secret_key, kApplicationId, "1.0");
  std::string expected = Snapshot(release);
  UpdateWith(ZipOf(release));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  EXPECT_EQ(Snapshot(install_), expected);
  ASSERT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }));
}

TEST_F(SelfUpdateTest, ANewerVersionByNumberNotByTextIsInstalled) {
  std::string release = MakeRelease(key_.secret_key, kApplicationId, "1.10");
  UpdateWith(ZipOf(release));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
}

// ---- the relaunch

TEST_F(SelfUpdateTest, AnInstallPathFullOfShellCharactersRelaunches) {
  std::string parent = scratch_.file("it's \"odd\" $HOME `false` $(false); a  b\\ & | > <");
  install_ = parent + "/Orvane";
  MakeApp(install_, "old", "1.0");
  ASSERT_EQ(SignInstallFolder(install_, key_.secret_key, kApplicationId, "1.0", "b1", false), "");
  update_ = std::make_unique<SelfUpdate>(seams());
  UpdateWith(ZipOf(MakeRelease(key_.secret_key)));
  ASSERT_EQ(events_.back()["ok"], true) << events_.back().dump();
  EXPECT_TRUE(SpinUntil([this] { return TempDir::Read(marker_) == "new\n"; }))
      << "the new program did not start from " << install_;
  // Nothing the path holds ran: no file appeared beside the install folder.
  EXPECT_EQ(NamesIn(parent), std::set<std::string>{"Orvane"});
}

TEST(UnpackLimitsTest, AnArchiveOverItsBoundsIsRefused) {
  TempDir scratch;
  std::string zip_path = scratch.path() + "/app.zip";
  std::string zip =
      MakeZip({FileEntry("a/one", std::string(4000, 'x')),
               FileEntry("a/two", std::string(4000, 'y')), FileEntry("a/three", "z")});
  ASSERT_TRUE(g_file_set_contents(zip_path.c_str(), zip.data(), gssize(zip.size()), nullptr));

  int run = 0;
  auto unpack = [&](UnpackLimits limits) {
    std::string into = scratch.path() + "/out-" + std::to_string(++run);
    g_mkdir_with_parents(into.c_str(), 0700);
    return UnpackArchive(zip_path, into, limits);
  };
  EXPECT_TRUE(unpack({8001, 3}));
  EXPECT_FALSE(unpack({8000, 3})) << "8001 bytes unpacked under a bound of 8000";
  EXPECT_FALSE(unpack({8001, 2})) << "three entries under a bound of two";
}

TEST(UnpackLimitsTest, AnEntryOverTheBoundLeavesNoFileOfItsDeclaredSize) {
  TempDir scratch;
  std::string zip_path = scratch.path() + "/app.zip";
  std::string zip = MakeZip({FileEntry("small", "x"), FileEntry("big", std::string(4000, 'x'))});
  ASSERT_TRUE(g_file_set_contents(zip_path.c_str(), zip.data(), gssize(zip.size()), nullptr));
  std::string into = scratch.path() + "/out";
  ASSERT_EQ(g_mkdir(into.c_str(), 0700), 0);
  EXPECT_FALSE(UnpackArchive(zip_path, into, {3000, 10}));
  EXPECT_EQ(TempDir::Read(into + "/small"), "x");
  struct stat big;
  EXPECT_NE(lstat((into + "/big").c_str(), &big), 0) << "a file of " << big.st_size << " bytes";
}

// The update with a library it opens missing. Neither the installed copy nor
// the download here needs one to be made (their signature files are never
// read as signatures), so nothing before the update itself opens either.
class UpdateWithoutALibraryTest : public ::testing::Test {
protected:
  void SetUp() override {
    UseThrowawayHome();
    install_ = scratch_.file("apps/Orvane");
    temp_ = scratch_.file("tmp");
    g_mkdir_with_parents(temp_.c_str(), 0700);
    WriteApp(install_, "old");
    std::string release = scratch_.file("release/Orvane");
    WriteApp(release, "new");
    std::vector<ZipEntry> entries;
    CollectEntries(release, "Orvane", entries);
    std::string zip = MakeZip(entries);
    server_ = std::make_unique<TestHttpServer>([zip](const HttpRequest&, HttpReply& r) {
      r.status = 200;
      r.body = zip;
    });
  }

  static void WriteApp(const std::string& folder, const std::string& name) {
    TempDir::WriteFile(folder + "/bin/orvane", "#!/bin/sh\necho " + name + "\n");
    chmod((folder + "/bin/orvane").c_str(), 0755);
    TempDir::WriteFile(folder + "/share/orvane/site/main.py", "print('" + name + "')\n");
    TempDir::WriteFile(folder + "/" + kManifestPath,
                       std::string("app-id ") + kApplicationId + "\nversion 1.0\nbuild b1\n");
    TempDir::WriteFile(folder + "/" + kManifestSignaturePath, "c2lnbmF0dXJl\n");
    TempDir::WriteFile(folder + "/" + kUpdateKeyPath, "a2V5\n");
  }

  // Every file below `folder` with its bytes and mode, read without libsodium.
  static std::string Files(const std::string& folder) {
    std::string text;
    GDir* dir = g_dir_open(folder.c_str(), 0, nullptr);
    if (!dir)
      return "(no folder " + folder + ")";
    std::set<std::string> names;
    while (const char* name = g_dir_read_name(dir))
      names.insert(name);
    g_dir_close(dir);
    for (const std::string& name : names) {
      std::string path = folder + "/" + name;
      struct stat info;
      lstat(path.c_str(), &info);
      text += path + " " + std::to_string(info.st_mode) + "\n";
      text += S_ISDIR(info.st_mode) ? Files(path) : TempDir::Read(path) + "\n";
    }
    return text;
  }

  // Runs two updates in this process, whose library `variable` names a file
  // that is not there, and exits 0 when each ended with `error` after
  // `stages`, left the installed copy as it was and never quit, and the log
  // said why once: a line that starts with `why` and names the file.
  [[noreturn]] void UpdateTwiceWithout(const char* variable, const std::string& error,
                                       const std::vector<std::string>& stages,
                                       const std::string& why) {
    const std::string missing = "libno-such-library-for-the-update.so.1";
    g_setenv(variable, missing.c_str(), true);
    std::string before = Files(install_);
    VirtualScheduler scheduler;
    std::vector<Event> events;
    int quits = 0;
    SelfUpdate update(SelfUpdateSeams{install_, temp_, scheduler,
                                      [&events](const Event& e) { events.push_back(e); },
                                      [&quits] { ++quits; }, nullptr, 0, 0.5});
    Event failure = {{"type", "updateDone"}, {"ok", false}, {"error", error}};
    std::vector<Event> expected;
    for (const std::string& stage : stages)
      expected.push_back({{"type", "updateProgress"}, {"stage", stage}});
    expected.push_back(failure);
    std::string problems;
    for (int run = 1; run <= 2; ++run) {
      events.clear();
      update.updateFrom(server_->url("/Orvane-2.0-linux-x86_64.zip"));
      bool ended =
          SpinUntil([&events] { return !events.empty() && events.back()["type"] == "updateDone"; });
      if (!ended || events != expected)
        problems += "update " + std::to_string(run) + " sent " + Event(events).dump() + "\n";
    }
    if (Files(install_) != before)
      problems += "the installed copy changed:\n" + Files(install_);
    if (quits != 0 || scheduler.pending() != 0)
      problems += "it quit or left something to do\n";
    std::vector<std::string> messages = log_.messages();
    auto said = std::count_if(messages.begin(), messages.end(), [&](const std::string& m) {
      return m.starts_with(why) && m.find(missing) != std::string::npos;
    });
    if (said != 1)
      problems += "the log said why " + std::to_string(said) + " times\n";
    if (!problems.empty()) {
      for (const std::string& m : messages)
        problems += "log: " + m + "\n";
      fprintf(stderr, "%s", problems.c_str());
      std::exit(1);
    }
    std::exit(0);
  }

  LogCapture log_;
  TempDir scratch_;
  std::string install_, temp_;
  std::unique_ptr<TestHttpServer> server_;
};

TEST_F(UpdateWithoutALibraryTest, WithoutTheArchiveLibraryNothingIsUnpackedAndTheLogSaysWhyOnce) {
  // The library is opened once per process: the updates run in a fresh one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(UpdateTwiceWithout("ORVANE_ARCHIVE_LIBRARY", "could not unpack the download",
                                 {"downloading", "unpacking"},
                                 "update: zip archives cannot be unpacked ("),
              ::testing::ExitedWithCode(0), "");
}

TEST_F(UpdateWithoutALibraryTest, WithoutTheSodiumLibraryNoSignatureIsCheckedAndTheLogSaysWhyOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(UpdateTwiceWithout("ORVANE_SODIUM_LIBRARY", "could not read this app's own signature",
                                 {"downloading", "unpacking", "checking signature"},
                                 "update: signatures cannot be made or checked ("),
              ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace orvane
