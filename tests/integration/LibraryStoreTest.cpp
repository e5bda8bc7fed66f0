// The library store against real servers, real files and real inotify.
#include "base/Settings.h"
#include "desktop/session/GLibScheduler.h"
#include "library/LibraryFolder.h"
#include "library/PdfActions.h"
#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/RawServer.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <glib/gstdio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string PdfBytes(const std::string& marker, size_t padding = 200) {
  return "%PDF-1.7\n% " + marker + "\n" + std::string(padding, 'x') + "\n%%EOF\n";
}

struct Outcome {
  bool done = false;
  std::optional<std::string> path;
  std::optional<std::string> error;
};

class LibraryStoreTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDefaultSettings();
    Settings::standard().remove(kLibraryBookmarkKey);
    account =
        "store-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
    store.setAccount(account);
    account = *store.account();
    store.setOnChange([this](const std::string& id, int64_t, double) { changes.push_back(id); });
  }

  Outcome ensure(const std::string& id, std::optional<std::string> url,
                 std::optional<std::string> etag) {
    auto outcome = std::make_shared<Outcome>();
    store.ensureLocal(id, url, etag, [outcome](auto path, auto error) {
      outcome->done = true;
      outcome->path = path;
      outcome->error = error;
    });
    SpinUntil([&] { return outcome->done; });
    return *outcome;
  }

  // A local copy synced at etag, optionally edited afterwards.
  std::string localCopy(const std::string& id, const std::string& etag, bool edited = false) {
    std::string path = store.pathFor(id);
    TempDir::WriteFile(path, PdfBytes("local " + id));
    double now = MTime(path);
    PdfStore::markSynced(path, id, etag, edited ? now - 10 : now);
    return path;
  }

  std::vector<std::string> leftovers() {
    std::vector<std::string> names;
    GDir* dir = g_dir_open(store.folder().c_str(), 0, nullptr);
    while (const char* name = dir ? g_dir_read_name(dir) : nullptr)
      if (std::string(name).find(".download-") != std::string::npos)
        names.push_back(name);
    if (dir)
      g_dir_close(dir);
    return names;
  }

  LogCapture log;
  GLibScheduler scheduler;
  PdfStore store{scheduler};
  std::string account;
  std::vector<std::string> changes;
};

TEST_F(LibraryStoreTest, MatchingEtagMakesNoRequest) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = PdfBytes("server"); });
  std::string path = localCopy("2401.01234", "e1");
  Outcome outcome = ensure("2401.01234", server.url("/p.pdf"), "e1");
  EXPECT_EQ(outcome.path, path);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(LibraryStoreTest, EmptyEtagIsServedFromDiskEvenIfTheServerIsNewer) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = PdfBytes("server"); });
  std::string path = localCopy("p", "old");
  EXPECT_EQ(ensure("p", server.url("/p.pdf"), "").path, path);
  EXPECT_EQ(ensure("p", server.url("/p.pdf"), std::nullopt).path, path);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(LibraryStoreTest, LocalEditsWinOverANewerServerVersion) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = PdfBytes("server"); });
  std::string path = localCopy("edited", "old", true);
  std::string before = TempDir::Read(path);
  EXPECT_EQ(ensure("edited", server.url("/p.pdf"), "new").path, path);
  EXPECT_EQ(TempDir::Read(path), before);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_THAT(changes, ElementsAre("edited"));
  EXPECT_THAT(log.messages(), Contains("pdfs: edited has local edits, keeping them"));
}

TEST_F(LibraryStoreTest, DownloadWritesTheFileItsSidecarAndPermissions) {
  std::string served = PdfBytes("fresh", 100000);
  TestHttpServer server([&](const HttpRequest&, HttpReply& r) { r.body = served; });
  Outcome outcome = ensure("cs/0101123", server.url("/cs/0101123.pdf"), "v2");
  ASSERT_TRUE(outcome.path) << outcome.error.value_or("");
  EXPECT_EQ(*outcome.path, store.folder() + "/cs_0101123.pdf");
  EXPECT_EQ(TempDir::Read(*outcome.path), served);
  struct stat info;
  stat(outcome.path->c_str(), &info);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  auto sidecar = PdfStore::sidecarAt(*outcome.path);
  EXPECT_EQ((*sidecar)["id"], "cs/0101123");
  EXPECT_EQ((*sidecar)["etag"], "v2");
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(*outcome.path));
  EXPECT_THAT(log.messages(), Contains("pdfs: downloading cs/0101123"));
  EXPECT_THAT(log.messages(),
              Contains("pdfs: cs/0101123 saved (" + std::to_string(served.size()) + " bytes)"));
  // Busy through the cool-down, then free again.
  EXPECT_TRUE(store.busy().count("cs/0101123"));
  EXPECT_TRUE(SpinUntil([&] { return store.busy().empty(); }, 6));
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(LibraryStoreTest, StatusOtherThan200FailsAndLeavesTheOldFile) {
  for (int status : {304, 206, 404, 500}) {
    TestHttpServer server([&](const HttpRequest&, HttpReply& r) {
      r.status = status;
      r.body = "<html>nope</html>";
    });
    std::string id = "status" + std::to_string(status);
    std::string path = localCopy(id, "old");
    std::string before = TempDir::Read(path);
    Outcome outcome = ensure(id, server.url("/x.pdf"), "new");
    EXPECT_EQ(outcome.path, std::nullopt);
    EXPECT_EQ(outcome.error, "HTTP " + std::to_string(status));
    EXPECT_EQ(TempDir::Read(path), before);
    EXPECT_THAT(log.messages(),
                Contains("pdfs: download of " + id + " failed: HTTP " + std::to_string(status)));
  }
  EXPECT_THAT(leftovers(), IsEmpty());
}

// A file's bytes and modification time, to show that a failed download
// left it exactly as it was.
struct FileState {
  std::string bytes;
  double mtime = 0;
  bool operator==(const FileState&) const = default;
};
std::ostream& operator<<(std::ostream& out, const FileState& state) {
  return out << state.bytes.size() << " bytes, mtime " << std::fixed << state.mtime;
}
FileState StateOf(const std::string& path) {
  return {TempDir::Read(path), MTime(path)};
}

TEST_F(LibraryStoreTest, BodyShorterThanItsLengthIsNotACompletePdf) {
  // The part that arrives even ends like a PDF: only its length gives it away.
  CuttingServer server(100000, PdfBytes("partial", 3000));
  std::string path = localCopy("cut", "old");
  FileState pdf = StateOf(path), sidecar = StateOf(PdfStore::sidecarFor(path));
  Outcome outcome = ensure("cut", server.url("/cut.pdf"), "new");
  EXPECT_EQ(outcome.path, std::nullopt);
  EXPECT_EQ(outcome.error, "the download is not a complete PDF");
  EXPECT_EQ(StateOf(path), pdf);
  EXPECT_EQ(StateOf(PdfStore::sidecarFor(path)), sidecar);
  EXPECT_THAT(log.messages(),
              Contains("pdfs: download of cut failed: the download is not a complete PDF"));
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(LibraryStoreTest, BodyThatIsNotACompletePdfLeavesTheOldFileAndSidecar) {
  const std::vector<std::pair<std::string, bool>> bodies = {
      {"<html><body>Sign in again</body></html>", false},
      {"%PDF-1.7\n" + std::string(5000, 'x'), false},       // no trailer yet
      {"%PDF-1.7\n%%EOF\n" + std::string(5000, 'x'), true}, // trailer not at the end
      {"", false},
  };
  int round = 0;
  for (const auto& [body, chunked] : bodies) {
    TestHttpServer server([&](const HttpRequest&, HttpReply& r) {
      r.body = body;
      r.chunked = chunked;
    });
    std::string id = "notpdf" + std::to_string(round++);
    std::string path = localCopy(id, "old");
    FileState pdf = StateOf(path), sidecar = StateOf(PdfStore::sidecarFor(path));
    Outcome outcome = ensure(id, server.url("/x.pdf"), "new");
    EXPECT_EQ(outcome.path, std::nullopt);
    EXPECT_EQ(outcome.error, "the download is not a complete PDF");
    EXPECT_EQ(StateOf(path), pdf);
    EXPECT_EQ(StateOf(PdfStore::sidecarFor(path)), sidecar);
    EXPECT_EQ((*PdfStore::sidecarAt(path))["etag"], "old");
  }
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(LibraryStoreTest, DownloadOfAnIdWithoutAnOldFileThatIsNotAPdfLeavesNothing) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = "<html>nope</html>"; });
  Outcome outcome = ensure("fresh", server.url("/x.pdf"), "v1");
  EXPECT_EQ(outcome.error, "the download is not a complete PDF");
  EXPECT_FALSE(FileExists(store.pathFor("fresh")));
  EXPECT_FALSE(FileExists(PdfStore::sidecarFor(store.pathFor("fresh"))));
  EXPECT_THAT(leftovers(), IsEmpty());
}

// A server that answers with `head` (and perhaps part of the body) and then
// says nothing more, holding the connection open.
std::unique_ptr<RawServer> StallingServer(std::string head) {
  return std::make_unique<RawServer>([head](RawServer& server, int client, const std::string&) {
    RawServer::Send(client, head);
    server.holdOpen();
  });
}

TEST_F(LibraryStoreTest, StalledDownloadFailsAfterTheIdleTimeOut) {
  store.setIdleTimeouts(1, kUploadTimeout);
  const std::vector<std::string> stalls = {
      // Headers, then nothing.
      "HTTP/1.1 200 OK\r\nContent-Type: application/pdf\r\nContent-Length: 100000\r\n\r\n",
      // Part of the body, then nothing.
      "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + PdfBytes("half", 5000),
      // Not even a status line.
      "",
  };
  int round = 0;
  for (const std::string& head : stalls) {
    auto server = StallingServer(head);
    std::string id = "stalled" + std::to_string(round++);
    std::string path = localCopy(id, "old");
    FileState pdf = StateOf(path), sidecar = StateOf(PdfStore::sidecarFor(path));
    Outcome outcome = ensure(id, server->url("/x.pdf"), "new");
    ASSERT_TRUE(outcome.done) << "the download of " << id << " never ended";
    EXPECT_EQ(outcome.path, std::nullopt);
    ASSERT_TRUE(outcome.error);
    EXPECT_FALSE(outcome.error->empty());
    EXPECT_EQ(StateOf(path), pdf);
    EXPECT_EQ(StateOf(PdfStore::sidecarFor(path)), sidecar);
    EXPECT_THAT(log.messages(), Contains("pdfs: download of " + id + " failed: " + *outcome.error));
    // Busy through the cool-down like any finished download, then free.
    EXPECT_TRUE(store.busy().count(id));
    EXPECT_TRUE(SpinUntil([&] { return store.busy().empty(); }, 6));
  }
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(LibraryStoreTest, StaleDownloadsOfAnEarlierRunAreRemovedWhenTheWatchStarts) {
  std::string pdf = localCopy("kept", "v1");
  std::string folder = store.folder();
  const std::vector<std::string> stale = {".kept.pdf.download-Ab12Cd", ".a_b.pdf.download-XXXXXX",
                                          ".2401.01234.pdf.download-09azAZ"};
  const std::vector<std::string> others = {"notes.txt",
                                           "report.pdf.download-Ab12Cd",
                                           ".notes.txt.download-Ab12Cd",
                                           ".kept.pdf.download-Ab12Cd7",
                                           ".kept.pdf.download-Ab12",
                                           ".kept.pdf.download-Ab 2Cd",
                                           ".kept.pdf.synced.download-Ab12Cd.pdf"};
  for (const std::string& name : stale)
    TempDir::WriteFile(folder + "/" + name, "%PDF-1.7 half a download");
  for (const std::string& name : others)
    TempDir::WriteFile(folder + "/" + name, "someone else's");
  // Only files are ever left behind; a folder or a link of that name is not ours.
  g_mkdir((folder + "/.dir.pdf.download-Ab12Cd").c_str(), 0755);
  TempDir outside;
  std::string target = outside.write("target", "outside the library");
  ASSERT_EQ(symlink(target.c_str(), (folder + "/.link.pdf.download-Ab12Cd").c_str()), 0);
  FileState kept = StateOf(pdf), sidecar = StateOf(PdfStore::sidecarFor(pdf));

  store.startWatching();

  for (const std::string& name : stale)
    EXPECT_FALSE(g_file_test((folder + "/" + name).c_str(), G_FILE_TEST_EXISTS)) << name;
  for (const std::string& name : others)
    EXPECT_EQ(TempDir::Read(folder + "/" + name), "someone else's") << name;
  EXPECT_TRUE(g_file_test((folder + "/.dir.pdf.download-Ab12Cd").c_str(), G_FILE_TEST_IS_DIR));
  EXPECT_TRUE(g_file_test((folder + "/.link.pdf.download-Ab12Cd").c_str(), G_FILE_TEST_IS_SYMLINK));
  EXPECT_EQ(TempDir::Read(target), "outside the library");
  EXPECT_EQ(StateOf(pdf), kept);
  EXPECT_EQ(StateOf(PdfStore::sidecarFor(pdf)), sidecar);
}

TEST_F(LibraryStoreTest, DownloadUnderWayKeepsItsTemporaryFileWhenTheWatchRestarts) {
  std::string served = PdfBytes("whole", 50000);
  std::atomic<bool> go_on{false};
  std::atomic<bool> half_sent{false};
  RawServer server([&](RawServer& self, int client, const std::string&) {
    std::string head =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(served.size()) + "\r\n\r\n";
    RawServer::Send(client, head + served.substr(0, 1000));
    half_sent = true;
    self.waitFor([&] { return go_on.load(); }, 20);
    RawServer::Send(client, served.substr(1000));
  });
  auto outcome = std::make_shared<Outcome>();
  store.ensureLocal("running", server.url("/r.pdf"), "v1", [outcome](auto path, auto error) {
    outcome->done = true;
    outcome->path = path;
    outcome->error = error;
  });
  ASSERT_TRUE(SpinUntil([&] { return half_sent.load(); }));
  ASSERT_EQ(leftovers().size(), 1u);
  store.startWatching();
  EXPECT_EQ(leftovers().size(), 1u);
  go_on = true;
  server.poke();
  ASSERT_TRUE(SpinUntil([&] { return outcome->done; }));
  EXPECT_EQ(outcome->error, std::nullopt);
  EXPECT_EQ(TempDir::Read(store.pathFor("running")), served);
  EXPECT_THAT(leftovers(), IsEmpty());
}

// The library folder on a file system of its own, `bytes` large: a tmpfs
// when the tests may mount one (they run as root in CI), else a limit on the
// size of files this process writes, which fails writes the same way.
class SmallDisk {
public:
  SmallDisk(const std::string& folder, size_t bytes) : folder_(folder) {
    std::string options = "size=" + std::to_string(bytes);
    mounted_ = mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
    if (!mounted_) {
      getrlimit(RLIMIT_FSIZE, &old_limit_);
      old_handler_ = signal(SIGXFSZ, SIG_IGN);
      rlimit limit = {rlim_t(bytes), old_limit_.rlim_max};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
  }
  ~SmallDisk() {
    if (mounted_) {
      umount2(folder_.c_str(), MNT_DETACH);
    } else {
      setrlimit(RLIMIT_FSIZE, &old_limit_);
      signal(SIGXFSZ, old_handler_);
    }
  }
  bool mounted() const { return mounted_; }

private:
  std::string folder_;
  bool mounted_ = false;
  rlimit old_limit_{};
  sighandler_t old_handler_ = SIG_DFL;
};

TEST_F(LibraryStoreTest, DiskFullDuringADownloadLeavesTheOldFileAndNoTemporary) {
  TempDir area;
  std::string library = area.file("Library");
  g_mkdir(library.c_str(), 0755);
  SmallDisk disk(library, 512 * 1024);
  if (!disk.mounted())
    std::printf("(no tmpfs here: a file size limit stands in for the full disk)\n");
  ASSERT_TRUE(StoreLibraryFolderBookmark(library));
  struct BackToTheDefaultFolder {
    PdfStore& store;
    ~BackToTheDefaultFolder() {
      Settings::standard().remove(kLibraryBookmarkKey);
      store.startWatching();
    }
  } back{store};
  store.startWatching();
  std::string path = localCopy("full", "old");
  ASSERT_EQ(path, library + "/" + account + "/full.pdf");
  FileState pdf = StateOf(path), sidecar = StateOf(PdfStore::sidecarFor(path));
  std::string served = PdfBytes("larger than the disk", 2 << 20);
  TestHttpServer server([&](const HttpRequest&, HttpReply& r) { r.body = served; });

  Outcome outcome = ensure("full", server.url("/full.pdf"), "new");

  EXPECT_EQ(outcome.path, std::nullopt);
  ASSERT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.error->empty());
  EXPECT_THAT(log.messages(), Contains("pdfs: download of full failed: " + *outcome.error));
  EXPECT_EQ(StateOf(path), pdf);
  EXPECT_EQ(StateOf(PdfStore::sidecarFor(path)), sidecar);
  EXPECT_THAT(leftovers(), IsEmpty());
  EXPECT_TRUE(SpinUntil([&] { return store.busy().empty(); }, 6));
}

TEST_F(LibraryStoreTest, RefusedConnectionIsAFailureWithTheTransportError) {
  int port;
  {
    TestHttpServer closed([](const HttpRequest&, HttpReply&) {});
    port = std::stoi(closed.url("").substr(17));
  }
  Outcome outcome = ensure("nowhere", "http://127.0.0.1:" + std::to_string(port) + "/x.pdf", "");
  EXPECT_EQ(outcome.path, std::nullopt);
  ASSERT_TRUE(outcome.error);
  EXPECT_NE(outcome.error->find("onnect"), std::string::npos) << *outcome.error;
}

TEST_F(LibraryStoreTest, NoAddressMeansNoPdfToFetch) {
  EXPECT_EQ(ensure("absent", std::nullopt, "e").error, "No PDF to fetch");
  EXPECT_EQ(ensure("absent", "", "e").error, "No PDF to fetch");
}

TEST_F(LibraryStoreTest, SecondRequestWithinTheCoolDown) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = PdfBytes("v1"); });
  ASSERT_TRUE(ensure("again", server.url("/a.pdf"), "v1").path);
  // Current: served from disk. Another version: refused while busy.
  EXPECT_TRUE(ensure("again", server.url("/a.pdf"), "v1").path);
  EXPECT_EQ(ensure("again", server.url("/a.pdf"), "v2").error, "Still fetching");
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(LibraryStoreTest, UploadSendsTheFileWithBothHeaders) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) {
    r.status = 201;
    r.body = R"({"etag":"v3"})";
  });
  std::string path = localCopy("up", "v2", true);
  double mtime = MTime(path);
  bool done = false, ok = false;
  double reported = -1;
  store.upload("up", server.url("/api/papers/up/pdf"), [&](bool success, auto, double m) {
    done = true;
    ok = success;
    reported = m;
  });
  EXPECT_TRUE(store.busy().count("up"));
  ASSERT_TRUE(SpinUntil([&] { return done; }));
  EXPECT_TRUE(ok);
  EXPECT_DOUBLE_EQ(reported, mtime);
  EXPECT_TRUE(store.busy().empty());
  ASSERT_EQ(server.requestCount(), 1u);
  HttpRequest request = server.requests()[0];
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.headers["content-type"], "application/pdf");
  EXPECT_EQ(request.headers["x-upsert"], "true");
  EXPECT_EQ(request.body, TempDir::Read(path));
  EXPECT_THAT(log.messages(), Contains("pdfs: upload of up done"));
  // The upload leaves the sidecar alone: the page confirms with markSynced.
  EXPECT_TRUE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(LibraryStoreTest, UploadRefusedWithABodyReportsStatusAndBody) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) {
    r.status = 413;
    r.body = "too big";
    r.content_type = "text/plain";
  });
  localCopy("large", "v", true);
  std::optional<std::string> error;
  bool done = false, ok = true;
  store.upload("large", server.url("/up"), [&](bool success, auto e, double) {
    done = true;
    ok = success;
    error = e;
  });
  ASSERT_TRUE(SpinUntil([&] { return done; }));
  EXPECT_FALSE(ok);
  EXPECT_EQ(error, "HTTP 413: too big");
  EXPECT_THAT(log.messages(), Contains("pdfs: upload of large HTTP 413: too big"));
}

struct UploadOutcome {
  bool done = false;
  bool ok = true;
  std::optional<std::string> error;
};

// What a server saw of an upload's body.
struct SeenBody {
  std::atomic<size_t> declared{0};
  std::atomic<size_t> received{0};
  std::atomic<bool> started{false};
  std::atomic<bool> ended{false};
};

// A server that reads the start of an upload's body, waits for `go_on`, then
// reads on slowly, 64 KiB at a time, to the declared length or the end of
// the connection. It stores the file only when the whole body came.
std::unique_ptr<RawServer> SlowReader(SeenBody& seen, std::atomic<bool>& go_on) {
  return std::make_unique<RawServer>([&](RawServer& self, int client, const std::string& received) {
    size_t head_end = received.find("\r\n\r\n");
    seen.declared = RawServer::DeclaredLength(received);
    seen.received = received.size() - (head_end + 4);
    char buffer[65536];
    bool first = true;
    while (seen.received < seen.declared) {
      ssize_t n = read(client, buffer, std::min(sizeof buffer, seen.declared - seen.received));
      if (n <= 0)
        break;
      seen.received += size_t(n);
      if (first) {
        first = false;
        seen.started = true;
        self.waitFor([&] { return go_on.load(); }, 20);
      }
      g_usleep(2000);
    }
    if (seen.received == seen.declared)
      RawServer::Send(client, "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
    seen.ended = true;
  });
}

TEST_F(LibraryStoreTest, FileThatChangesSizeDuringTheUploadFailsIt) {
  for (bool grows : {true, false}) {
    std::string id = grows ? "grows" : "shrinks";
    std::string path = store.pathFor(id);
    // Far more than the socket buffers hold, so the change lands mid-body.
    TempDir::WriteFile(path, PdfBytes(id, size_t(32) << 20));
    PdfStore::markSynced(path, id, "v1", MTime(path) - 10);
    SeenBody seen;
    std::atomic<bool> go_on{false};
    auto server = SlowReader(seen, go_on);
    UploadOutcome outcome;
    store.upload(id, server->url("/up"), [&](bool ok, auto error, double) {
      outcome = {true, ok, error};
    });
    ASSERT_TRUE(SpinUntil([&] { return seen.started.load(); }));
    if (grows) {
      std::ofstream(path, std::ios::app) << "% one more line\n";
    } else {
      ASSERT_EQ(truncate(path.c_str(), off_t(16) << 20), 0);
    }
    go_on = true;
    server->poke();
    ASSERT_TRUE(SpinUntil([&] { return outcome.done; }, 60)) << id;
    EXPECT_FALSE(outcome.ok) << id;
    EXPECT_EQ(outcome.error, "the file changed during the upload") << id;
    EXPECT_THAT(log.messages(),
                Contains("pdfs: upload of " + id + " the file changed during the upload"));
    // The server saw a body cut short and the connection closed: nothing to store.
    ASSERT_TRUE(SpinUntil([&] { return seen.ended.load(); }));
    EXPECT_LT(seen.received.load(), seen.declared.load()) << id;
    EXPECT_TRUE(store.busy().empty());
  }
}

TEST_F(LibraryStoreTest, UploadServerThatClosesMidBodyFailsTheUpload) {
  std::string path = store.pathFor("cut-off");
  TempDir::WriteFile(path, PdfBytes("cut-off", size_t(16) << 20));
  PdfStore::markSynced(path, "cut-off", "v1", MTime(path) - 10);
  FileState pdf = StateOf(path), sidecar = StateOf(PdfStore::sidecarFor(path));
  RawServer server([](RawServer&, int client, const std::string&) {
    char buffer[65536];
    size_t taken = 0;
    while (taken < 200000) {
      ssize_t n = read(client, buffer, sizeof buffer);
      if (n <= 0)
        break;
      taken += size_t(n);
    }
    // Hangs up with the rest of the body still coming.
  });
  UploadOutcome outcome;
  store.upload("cut-off", server.url("/up"), [&](bool ok, auto error, double) {
    outcome = {true, ok, error};
  });
  ASSERT_TRUE(SpinUntil([&] { return outcome.done; }));
  EXPECT_FALSE(outcome.ok);
  ASSERT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.error->empty());
  EXPECT_THAT(log.messages(), Contains("pdfs: upload of cut-off " + *outcome.error));
  EXPECT_EQ(StateOf(path), pdf);
  EXPECT_EQ(StateOf(PdfStore::sidecarFor(path)), sidecar);
  EXPECT_TRUE(store.busy().empty());
}

TEST_F(LibraryStoreTest, UploadToASilentServerEndsAfterTheIdleTimeOut) {
  store.setIdleTimeouts(kDownloadIdleTimeout, 1);
  localCopy("quiet", "v1", true);
  RawServer server([](RawServer& self, int client, const std::string& received) {
    RawServer::ReadRequestBody(client, received);
    self.holdOpen();
  });
  UploadOutcome outcome;
  store.upload("quiet", server.url("/up"), [&](bool ok, auto error, double) {
    outcome = {true, ok, error};
  });
  ASSERT_TRUE(SpinUntil([&] { return outcome.done; }));
  EXPECT_FALSE(outcome.ok);
  EXPECT_TRUE(outcome.error && !outcome.error->empty());
  EXPECT_TRUE(store.busy().empty());
}

TEST_F(LibraryStoreTest, UploadWithoutALocalFile) {
  bool called = false;
  store.upload("nothing", "http://127.0.0.1:9/", [&](bool ok, auto error, double mtime) {
    called = true;
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, "No local file");
    EXPECT_EQ(mtime, 0);
  });
  EXPECT_TRUE(called);
}

TEST_F(LibraryStoreTest, RealEditsAreNoticedOnceAfterTheySettle) {
  std::string path = localCopy("watched", "v1");
  SpinFor(0.2);
  // Two saves in quick succession, as an annotating viewer makes them.
  TempDir::WriteFile(path, PdfBytes("annotated once", 300));
  SetMTime(path, MTime(PdfStore::sidecarFor(path)) + 5);
  TempDir::WriteFile(path, PdfBytes("annotated twice", 400));
  SetMTime(path, MTime(PdfStore::sidecarFor(path)) + 6);
  ASSERT_TRUE(SpinUntil([&] { return !changes.empty(); }, 10));
  SpinFor(3.5);
  EXPECT_THAT(changes, ElementsAre("watched"));
}

TEST_F(LibraryStoreTest, FolderMovedWhileWatchedIsFollowed) {
  TempDir area;
  std::string library = area.file("Library");
  g_mkdir(library.c_str(), 0755);
  ASSERT_TRUE(StoreLibraryFolderBookmark(library));
  store.startWatching();
  ASSERT_TRUE(store.isWatching());
  std::string moved = area.file("Library Moved");
  ASSERT_EQ(g_rename(library.c_str(), moved.c_str()), 0);
  std::string expected = "pdfs: folder moved — now " + moved + "/" + account;
  ASSERT_TRUE(SpinUntil([&] {
    auto m = log.messages();
    return std::find(m.begin(), m.end(), expected) != m.end();
  })) << ::testing::PrintToString(log.messages());
  // The fresh watch is on the new place: an edit there is noticed.
  std::string path = localCopy("after-move", "v1");
  EXPECT_EQ(path, moved + "/" + account + "/after-move.pdf");
  SpinFor(0.2);
  TempDir::WriteFile(path, PdfBytes("edited after the move"));
  SetMTime(path, MTime(PdfStore::sidecarFor(path)) + 5);
  EXPECT_TRUE(SpinUntil([&] { return !changes.empty(); }, 10));
  EXPECT_THAT(changes, ElementsAre("after-move"));
  Settings::standard().remove(kLibraryBookmarkKey);
}

// Links in the account folder are never followed out of it.

TEST_F(LibraryStoreTest, PdfLinkedFromOutsideIsReplacedByADownloadAndItsTargetKept) {
  std::string served = PdfBytes("from the server");
  TestHttpServer server([&](const HttpRequest&, HttpReply& r) { r.body = served; });
  TempDir outside;
  std::string target = outside.write("mine.pdf", PdfBytes("not the library's"));
  SetMTime(target, 1234);
  std::string path = store.pathFor("linked");
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  Outcome outcome = ensure("linked", server.url("/linked.pdf"), "");
  ASSERT_EQ(outcome.path, path) << outcome.error.value_or("");
  EXPECT_EQ(server.requestCount(), 1u);
  struct stat info;
  ASSERT_EQ(lstat(path.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(TempDir::Read(path), served);
  EXPECT_EQ(TempDir::Read(target), PdfBytes("not the library's"));
  EXPECT_DOUBLE_EQ(MTime(target), 1234);
}

TEST_F(LibraryStoreTest, PdfLinkedFromOutsideIsNeverUploaded) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.status = 200; });
  TempDir outside;
  std::string target = outside.write("secret.pdf", PdfBytes("private"));
  std::string path = store.pathFor("exfiltrate");
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  PdfStore::markSynced(path, "exfiltrate", std::string("v1"), 1000);
  bool done = false, ok = true;
  std::optional<std::string> error;
  store.upload("exfiltrate", server.url("/up"), [&](bool success, auto e, double) {
    done = true;
    ok = success;
    error = e;
  });
  ASSERT_TRUE(SpinUntil([&] { return done; }));
  EXPECT_FALSE(ok);
  EXPECT_EQ(error, "No local file");
  EXPECT_EQ(server.requestCount(), 0u);
}

// Faults.

TEST_F(LibraryStoreTest, LibraryFolderDeletedAndRecreatedWhileWatchedIsFollowed) {
  std::string library = LibraryFolder();
  ASSERT_EQ(library, DefaultLibraryFolder());
  store.startWatching();
  ASSERT_TRUE(store.isWatching());
  SpinFor(0.2);
  // Deleted with everything in it, then made again at once, as a sync tool
  // or a restore from a backup does.
  std::filesystem::remove_all(library);
  ASSERT_EQ(g_mkdir_with_parents((library + "/" + account).c_str(), 0755), 0);
  std::string expected = "pdfs: folder moved — now " + library + "/" + account;
  ASSERT_TRUE(SpinUntil([&] {
    auto m = log.messages();
    return std::find(m.begin(), m.end(), expected) != m.end();
  })) << ::testing::PrintToString(log.messages());
  SpinFor(1.5); // any rest of the deletion's events
  ASSERT_TRUE(store.isWatching());
  size_t restarts = 0;
  for (const std::string& line : log.messages())
    restarts += line == expected;

  // A PDF edited in the recreated folder is noticed, once.
  std::string path = localCopy("recreated", "v1");
  SpinFor(0.2);
  TempDir::WriteFile(path, PdfBytes("edited in the new folder"));
  SetMTime(path, MTime(PdfStore::sidecarFor(path)) + 5);
  ASSERT_TRUE(SpinUntil([&] { return !changes.empty(); }, 10));
  SpinFor(3.5);
  EXPECT_THAT(changes, ElementsAre("recreated"));
  size_t restarts_after = 0;
  for (const std::string& line : log.messages())
    restarts_after += line == expected;
  EXPECT_EQ(restarts_after, restarts) << "the watch kept restarting";
}

} // namespace
} // namespace orvane
