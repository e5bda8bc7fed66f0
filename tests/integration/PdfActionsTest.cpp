// The page's PDF actions through the real store, real files and real
// servers, with the desktop side recorded.
#include "library/PdfActions.h"
#include "base/Settings.h"
#include "desktop/session/GLibScheduler.h"
#include "library/LibraryFolder.h"
#include "library/PdfFiles.h"

#include "support/FakePage.h"
#include "support/Fifo.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PdfActionsTest : public ::testing::Test, public PdfActionHost {
protected:
  void SetUp() override {
    RegisterDefaultSettings();
    Settings::standard().remove(kLibraryBookmarkKey);
  }

  void helloFrom(const PageRef&, const std::string& account) override {
    calls.push_back("hello " + account);
    store.setAccount(account);
  }
  void sendEvent(const Event& event) override { events.push_back(event); }
  void openInPreview(const std::string& path) override { calls.push_back("preview " + path); }
  void revealInFileManager(const std::string& path) override { calls.push_back("reveal " + path); }
  void beginFileDrag(const std::string& path, const PageRef&) override {
    calls.push_back("drag " + path);
  }
  void runClaude(const json& body) override { calls.push_back("run " + body.value("turn", "")); }
  void stopClaude(const json& body) override { calls.push_back("stop " + body.value("turn", "")); }
  void updateFrom(const std::string& address) override { calls.push_back("update " + address); }

  bool act(const json& body) {
    std::optional<std::string> action;
    if (body.contains("action") && body["action"].is_string())
      action = body["action"].get<std::string>();
    return actions.handlePdfAction(action, body, page);
  }
  void signIn() {
    act({{"action", "hello"},
         {"account", std::string("actions-") +
                         ::testing::UnitTest::GetInstance()->current_test_info()->name()}});
    calls.clear();
  }
  std::string pdfAt(const std::string& id) {
    std::string path = store.pathFor(id);
    TempDir::WriteFile(path, "%PDF-1.7\n" + std::string(200, 'x') + "\n%%EOF\n");
    return path;
  }

  LogCapture log;
  GLibScheduler scheduler;
  PdfStore store{scheduler};
  DockDrops drops{[this](const Event& e) { events.push_back(e); }};
  PdfActions actions{store, drops, *this};
  std::shared_ptr<FakePage> page = std::make_shared<FakePage>();
  std::vector<std::string> calls;
  std::vector<json> events;
};

TEST_F(PdfActionsTest, OpenPdfBeforeHelloIsIgnoredAndNotHandled) {
  EXPECT_FALSE(act({{"action", "openPdf"}, {"id", "x"}, {"url", "http://127.0.0.1:9/x"}}));
  EXPECT_THAT(log.messages(), ElementsAre("openPdf before hello — ignored"));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_FALSE(act({{"action", "runClaude"}, {"turn", "t"}, {"args", json::array()}}));
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(PdfActionsTest, OpenPdfWithoutUrlForAMissingFileSaysNoPdfToFetch) {
  signIn();
  EXPECT_TRUE(act({{"action", "openPdf"}, {"id", "2401.01234"}}));
  ASSERT_TRUE(SpinUntil([&] { return !events.empty(); }));
  EXPECT_EQ(events[0],
            (json{{"type", "error"}, {"id", "2401.01234"}, {"message", "No PDF to fetch"}}));
}

TEST_F(PdfActionsTest, OpenPrepareAndRevealAfterADownload) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) {
    r.body = "%PDF-1.7\n" + std::string(300, 'y') + "\n%%EOF\n";
  });
  signIn();
  act({{"action", "openPdf"}, {"id", "cs/0101123"}, {"url", server.url("/a")}, {"etag", "e"}});
  ASSERT_TRUE(SpinUntil([&] { return !events.empty(); }));
  std::string path = store.pathFor("cs/0101123");
  EXPECT_THAT(calls, ElementsAre("preview " + path));
  EXPECT_EQ(events[0], (json{{"type", "pdfOpened"}, {"id", "cs/0101123"}}));
  act({{"action", "preparePdf"}, {"id", "cs/0101123"}, {"url", server.url("/a")}, {"etag", "e"}});
  act({{"action", "revealPdf"}, {"id", "cs/0101123"}, {"url", 7}, {"etag", "e"}});
  EXPECT_EQ(events.back(), (json{{"type", "pdfReady"}, {"id", "cs/0101123"}}));
  EXPECT_EQ(calls.back(), "reveal " + path);
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(PdfActionsTest, DragOfAPaperNeverDownloadedIsNotReady) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = "%PDF-"; });
  signIn();
  EXPECT_TRUE(act({{"action", "dragPdf"}, {"id", "never"}, {"url", server.url("/n")}}));
  EXPECT_EQ(events.at(0), (json{{"type", "pdfNotReady"}, {"id", "never"}}));
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(server.requestCount(), 0u);
  std::string path = pdfAt("here");
  act({{"action", "dragPdf"}, {"id", "here"}});
  EXPECT_THAT(calls, ElementsAre("drag " + path));
}

TEST_F(PdfActionsTest, MissingIdMakesEveryPaperActionAHandledNoOp) {
  signIn();
  for (const char* name :
       {"openPdf", "preparePdf", "revealPdf", "dragPdf", "uploadFile", "markSynced"}) {
    EXPECT_TRUE(act({{"action", name}})) << name;
    EXPECT_TRUE(act({{"action", name}, {"id", 5}})) << name;
  }
  SpinFor(0.05);
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(PdfActionsTest, MarkSyncedWithoutMtimeStampsZero) {
  signIn();
  std::string path = pdfAt("m");
  EXPECT_TRUE(act({{"action", "markSynced"}, {"id", "m"}, {"etag", "v9"}}));
  EXPECT_EQ(MTime(PdfStore::sidecarFor(path)), 0);
  EXPECT_EQ((*PdfStore::sidecarAt(path))["etag"], "v9");
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(PdfActionsTest, MarkSyncedReportsEditsMadeDuringTheUpload) {
  signIn();
  std::string path = pdfAt("during");
  double uploaded_at = MTime(path) - 30; // the page confirms an older version
  act({{"action", "markSynced"},
       {"id", "during"},
       {"etag", "v2"},
       {"mtime", std::to_string(uploaded_at)}});
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["type"], "pdfChanged");
  EXPECT_EQ(events[0]["id"], "during");
  EXPECT_EQ(events[0]["size"], FileSize(path));
  EXPECT_DOUBLE_EQ(events[0]["mtime"].get<double>(), MTime(path));
}

TEST_F(PdfActionsTest, UploadFileEchoesTheTokenAndTheStartTime) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.status = 200; });
  signIn();
  std::string path = pdfAt("u");
  act({{"action", "uploadFile"},
       {"id", "u"},
       {"upload_url", server.url("/u")},
       {"token", {{"n", 1}}}});
  ASSERT_TRUE(SpinUntil([&] { return !events.empty(); }));
  EXPECT_EQ(events[0]["type"], "uploaded");
  EXPECT_EQ(events[0]["token"], (json{{"n", 1}}));
  EXPECT_EQ(events[0]["ok"], true);
  EXPECT_EQ(events[0]["error"], "");
  EXPECT_DOUBLE_EQ(events[0]["mtime"].get<double>(), MTime(path));
  act({{"action", "uploadFile"}, {"id", "u"}});
  SpinFor(0.05);
  EXPECT_EQ(events.size(), 1u);
}

TEST_F(PdfActionsTest, InboxUploadWithAnUnknownTokenDoesNothing) {
  signIn();
  EXPECT_TRUE(
      act({{"action", "inboxUpload"}, {"token", "NOPE"}, {"upload_url", "http://127.0.0.1:9/"}}));
  SpinFor(0.05);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(PdfActionsTest, InboxUploadSendsTheDroppedFileOnce) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.status = 201; });
  signIn();
  TempDir files;
  std::string dropped = files.write("Dropped Paper.PDF", "%PDF-1.4\n" + std::string(64, 'z'));
  drops.openFiles({dropped, files.write("notes.txt", "x")});
  ASSERT_EQ(events.size(), 1u);
  std::string token = events[0]["token"];
  EXPECT_EQ(events[0]["name"], "Dropped Paper.PDF");
  EXPECT_EQ(events[0]["size"], FileSize(dropped));
  act({{"action", "inboxUpload"}, {"token", token}}); // no address: the entry stays
  act({{"action", "inboxUpload"},
       {"token", token},
       {"upload_url", server.url("/api/inbox/x.pdf")}});
  ASSERT_TRUE(SpinUntil([&] { return events.size() == 2; }));
  EXPECT_EQ(events[1], (json{{"type", "inboxUploaded"},
                             {"token", token},
                             {"ok", true},
                             {"name", "Dropped Paper.PDF"},
                             {"error", ""}}));
  HttpRequest request = server.requests().at(0);
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.headers["content-type"], "application/pdf");
  EXPECT_EQ(request.headers.count("x-upsert"), 0u);
  EXPECT_EQ(request.body, TempDir::Read(dropped));
  EXPECT_THAT(log.messages(), Contains("dock drop: uploading Dropped Paper.PDF"));
  EXPECT_THAT(log.messages(), Contains("dock drop: upload done"));
}

TEST_F(PdfActionsTest, FailedInboxUploadCannotBeRetriedWithTheSameToken) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.status = 507; });
  signIn();
  TempDir files;
  drops.openFiles({files.write("a.pdf", "%PDF-1.4\n")});
  std::string token = events[0]["token"];
  act({{"action", "inboxUpload"}, {"token", token}, {"upload_url", server.url("/in")}});
  ASSERT_TRUE(SpinUntil([&] { return events.size() == 2; }));
  EXPECT_EQ(events[1]["ok"], false);
  EXPECT_EQ(events[1]["error"], "HTTP 507");
  EXPECT_THAT(log.messages(), Contains("dock drop: upload failed (507)"));
  act({{"action", "inboxUpload"}, {"token", token}, {"upload_url", server.url("/in")}});
  SpinFor(0.2);
  EXPECT_EQ(events.size(), 2u);
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(PdfActionsTest, ADroppedFileWhoseNameHoldsALineBreakIsLoggedOnOneLine) {
  TempDir files;
  std::string dropped = files.write("a\n00:00:00  update: installed.pdf", "%PDF-1.4\n");
  drops.openFiles({dropped});
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["name"], "a\n00:00:00  update: installed.pdf"); // the page gets it whole
  std::string text = TempDir::Read(log.path());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_THAT(log.messages(), ElementsAre("dock drop: a\\n00:00:00  update: installed.pdf"));
}

TEST_F(PdfActionsTest, SamePdfDroppedTwiceGivesTwoValidTokens) {
  TempDir files;
  std::string dropped = files.write("twice.pdf", "%PDF-1.4\n");
  drops.openFiles({dropped});
  drops.openFiles({dropped});
  ASSERT_EQ(events.size(), 2u);
  std::string first = events[0]["token"], second = events[1]["token"];
  EXPECT_NE(first, second);
  EXPECT_EQ(drops.path(first), dropped);
  EXPECT_EQ(drops.path(second), dropped);
  EXPECT_EQ(first.size(), 36u);
  for (char c : first)
    EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || c == '-') << first;
}

TEST_F(PdfActionsTest, AgentActionsAreHandedOnAfterHello) {
  signIn();
  EXPECT_TRUE(act({{"action", "runClaude"}, {"turn", "t1"}}));
  EXPECT_TRUE(act({{"action", "stopClaude"}, {"turn", "t1"}}));
  EXPECT_FALSE(act({{"action", "spar"}, {"id", "x"}}));
  EXPECT_THAT(calls, ElementsAre("run t1", "stop t1"));
}

TEST_F(PdfActionsTest, UpdateAppStartsAnUpdateOnlyWithAStringAddress) {
  signIn();
  for (json url : {json(42), json(nullptr), json::array({"http://a/x.zip"}),
                   json::object({{"u", "v"}}), json(true)})
    EXPECT_TRUE(act({{"action", "updateApp"}, {"url", url}})) << url;
  EXPECT_TRUE(act({{"action", "updateApp"}}));
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(act({{"action", "updateApp"}, {"url", "http://127.0.0.1:9/Orvane-2.zip"}}));
  EXPECT_TRUE(act({{"action", "updateApp"}, {"url", std::string(1 << 20, 'x')}}));
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0], "update http://127.0.0.1:9/Orvane-2.zip");
  EXPECT_EQ(calls[1].size(), std::string("update ").size() + (1 << 20));
}

TEST_F(PdfActionsTest, PaperIdWithANulCharacterCountsAsMissing) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) { r.body = "%PDF-"; });
  signIn();
  pdfAt("a");
  for (const char* name :
       {"openPdf", "preparePdf", "revealPdf", "dragPdf", "uploadFile", "markSynced"}) {
    EXPECT_TRUE(act({{"action", name},
                     {"id", std::string("a\0b", 3)},
                     {"url", server.url("/a")},
                     {"upload_url", server.url("/up")},
                     {"mtime", 5}}))
        << name;
  }
  SpinFor(0.1);
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_FALSE(g_file_test(PdfStore::sidecarFor(store.pathFor("a")).c_str(), G_FILE_TEST_EXISTS));
}

// The longest file name the library makes for a paper is a download's
// temporary file: "." + the PDF's name + ".download-XXXXXX".
size_t LongestFittingId(const std::string& folder) {
  long limit = pathconf(folder.c_str(), _PC_NAME_MAX);
  return size_t(limit) - std::string(".").size() - std::string(".pdf").size() -
         std::string(".download-XXXXXX").size();
}

TEST_F(PdfActionsTest, PaperIdTooLongForAFileNameIsRefusedByEveryAction) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) {
    r.body = "%PDF-1.7\n" + std::string(300, 'y') + "\n%%EOF\n";
  });
  signIn();
  for (size_t length : {LongestFittingId(store.folder()) + 1, size_t(300), size_t(5000)}) {
    std::string id(length, 'q');
    for (const char* name :
         {"openPdf", "preparePdf", "revealPdf", "dragPdf", "uploadFile", "markSynced"}) {
      events.clear();
      EXPECT_TRUE(act({{"action", name},
                       {"id", id},
                       {"url", server.url("/q")},
                       {"etag", "v1"},
                       {"upload_url", server.url("/up")},
                       {"mtime", 5}}))
          << name;
      ASSERT_TRUE(SpinUntil([&] { return !events.empty(); }, 10)) << name << " " << length;
      SpinFor(0.05);
      EXPECT_THAT(events, ElementsAre(json{
                              {"type", "error"}, {"id", id}, {"message", "Paper id too long"}}))
          << name << " " << length;
    }
  }
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_THAT(calls, IsEmpty());
  GDir* dir = g_dir_open(store.folder().c_str(), 0, nullptr);
  ASSERT_TRUE(dir);
  EXPECT_EQ(g_dir_read_name(dir), nullptr) << "the account folder is not empty";
  g_dir_close(dir);
}

TEST_F(PdfActionsTest, LongestFittingPaperIdDownloadsAndSyncs) {
  TestHttpServer server([](const HttpRequest&, HttpReply& r) {
    r.body = "%PDF-1.7\n" + std::string(300, 'y') + "\n%%EOF\n";
  });
  signIn();
  std::string id(LongestFittingId(store.folder()), 'r');
  act({{"action", "openPdf"}, {"id", id}, {"url", server.url("/r")}, {"etag", "v1"}});
  ASSERT_TRUE(SpinUntil([&] { return !events.empty(); }));
  EXPECT_EQ(events[0], (json{{"type", "pdfOpened"}, {"id", id}}));
  std::string path = store.pathFor(id);
  EXPECT_TRUE(CompletePdf(path));
  act({{"action", "markSynced"}, {"id", id}, {"etag", "v2"}, {"mtime", MTime(path)}});
  auto sidecar = PdfStore::sidecarAt(path);
  ASSERT_TRUE(sidecar);
  EXPECT_EQ((*sidecar)["id"], id);
  EXPECT_EQ((*sidecar)["etag"], "v2");
  EXPECT_EQ(events.size(), 1u);
}

TEST_F(PdfActionsTest, FifoNamedLikeAPdfNeverBlocksAnAction) {
  signIn();
  std::string path = store.pathFor("piped");
  ASSERT_TRUE(MakeFifo(path));
  EXPECT_TRUE(ReturnsDespiteFifos({path}, [&] {
    act({{"action", "markSynced"}, {"id", "piped"}, {"etag", "v1"}, {"mtime", 1000}});
    act({{"action", "openPdf"}, {"id", "piped"}});
    act({{"action", "dragPdf"}, {"id", "piped"}});
  }));
  // Not a file of the library: nothing to open and nothing to drag.
  ASSERT_TRUE(SpinUntil([&] { return events.size() >= 2; }));
  EXPECT_THAT(events,
              ElementsAre(json{{"type", "error"}, {"id", "piped"}, {"message", "No PDF to fetch"}},
                          json{{"type", "pdfNotReady"}, {"id", "piped"}}));
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(PdfActionsTest, NonFiniteMtimeStampsZero) {
  signIn();
  std::string path = pdfAt("n");
  for (const json& mtime : {json("1e400"), json("inf"), json("nan"), json(1e308 * 10)}) {
    PdfStore::markSynced(path, "n", std::string("v0"), 1000);
    act({{"action", "markSynced"}, {"id", "n"}, {"etag", "v1"}, {"mtime", mtime}});
    EXPECT_EQ(MTime(PdfStore::sidecarFor(path)), 0) << mtime;
  }
  EXPECT_THAT(events, IsEmpty());
}

} // namespace
} // namespace orvane
