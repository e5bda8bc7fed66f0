// The library store against real servers, real files and real inotify.
#include "base/Settings.h"
#include "desktop/x11/GLibScheduler.h"
#include "library/LibraryFolder.h"
#include "library/PdfActions.h"
#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"

#include <filesystem>
#include <glib/gstdio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
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

TEST_F(LibraryStoreTest, ConnectionCutMidwayLeavesTheOldFileWhole) {
  CuttingServer server(100000, PdfBytes("partial", 3000));
  std::string path = localCopy("cut", "old");
  std::string before = TempDir::Read(path);
  Outcome outcome = ensure("cut", server.url("/cut.pdf"), "new");
  EXPECT_EQ(outcome.path, std::nullopt);
  EXPECT_TRUE(outcome.error && !outcome.error->empty());
  EXPECT_EQ(TempDir::Read(path), before);
  EXPECT_THAT(leftovers(), IsEmpty());
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
