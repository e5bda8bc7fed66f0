// Settling and scanning on virtual time: the folder watch's batches are fed
// in directly; the real inotify watch has integration tests of its own.
#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/Fifo.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Change {
  std::string id;
  int64_t size;
  double mtime;
};

class PdfStoreWatchTest : public ::testing::Test {
protected:
  void SetUp() override {
    store.setAccount("watch-" +
                     std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    store.setOnChange([this](const std::string& id, int64_t size, double mtime) {
      changes.push_back({id, size, mtime});
    });
  }

  // A synced PDF, then saved again later: it has unsynced edits.
  std::string editedPdf(const std::string& id, bool complete = true) {
    std::string path = store.pathFor(id);
    TempDir::WriteFile(path, complete ? "%PDF-1.7\n" + std::string(100, 'x') + "\n%%EOF\n"
                                      : "%PDF-1.7\n" + std::string(100, 'x'));
    SetMTime(path, 2000);
    PdfStore::markSynced(path, id, std::string("e1"), 1000);
    return path;
  }

  LogCapture log;
  VirtualScheduler scheduler;
  PdfStore store{scheduler};
  std::vector<Change> changes;
};

TEST_F(PdfStoreWatchTest, ThreeSavesOneAndAHalfSecondsApartGiveOneCheck) {
  std::string path = editedPdf("2401.01234");
  store.fileTouched(path);
  scheduler.advance(1.5);
  store.fileTouched(path);
  scheduler.advance(1.5);
  store.fileTouched(path);
  scheduler.advance(1.99);
  EXPECT_THAT(changes, IsEmpty());
  scheduler.advance(0.01);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].id, "2401.01234");
  EXPECT_EQ(changes[0].size, FileSize(path));
  EXPECT_DOUBLE_EQ(changes[0].mtime, 2000);
  EXPECT_DOUBLE_EQ(scheduler.now(), 5.0);
  EXPECT_EQ(log.messages().back(), "pdfs: 2401.01234.pdf edited (mtime 2000 > sidecar 1000)");
  scheduler.runAll();
  EXPECT_EQ(changes.size(), 1u);
}

TEST_F(PdfStoreWatchTest, SidecarsAndOtherFilesScheduleNothing) {
  std::string path = editedPdf("x");
  store.storeEvents({{PdfStore::sidecarFor(path), false},
                     {store.folder() + "/notes.txt", false},
                     {store.folder() + "/.x.pdf.download-ABCDEF", false}});
  EXPECT_EQ(store.pendingSettles(), 0u);
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST_F(PdfStoreWatchTest, BusyPaperIsIgnoredWhenTouchedAndWhenItSettles) {
  std::string path = editedPdf("busy/one");
  store.busy().insert("busy/one");
  store.fileTouched(path);
  EXPECT_EQ(store.pendingSettles(), 0u);
  store.busy().erase("busy/one");
  store.fileTouched(path);
  store.busy().insert("busy/one");
  scheduler.runAll();
  EXPECT_THAT(changes, IsEmpty());
}

TEST_F(PdfStoreWatchTest, IncompletePdfIsLoggedAndNotReported) {
  std::string path = editedPdf("half", false);
  store.fileTouched(path);
  scheduler.runAll();
  EXPECT_THAT(changes, IsEmpty());
  EXPECT_EQ(log.messages().back(), "pdfs: half.pdf not a complete PDF yet");
}

TEST_F(PdfStoreWatchTest, PdfWithoutSidecarIsNeverReported) {
  std::string path = store.pathFor("stray");
  TempDir::WriteFile(path, "%PDF-1.7\n" + std::string(100, 'x') + "\n%%EOF\n");
  store.fileTouched(path);
  scheduler.runAll();
  EXPECT_THAT(changes, IsEmpty());
}

TEST_F(PdfStoreWatchTest, RescanReportsEditsMadeWhileClosedOnce) {
  editedPdf("cs/0101123");
  std::string synced = store.pathFor("synced");
  TempDir::WriteFile(synced, "%PDF-1.7\n" + std::string(100, 'x') + "\n%%EOF\n");
  PdfStore::markSynced(synced, "synced", std::string("e"), MTime(synced));
  editedPdf("incomplete", false);
  store.rescan();
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].id, "cs/0101123");
  EXPECT_EQ(log.messages().back(), "pdfs: cs_0101123.pdf has unsynced edits from earlier");
}

TEST_F(PdfStoreWatchTest, RescanSkipsBusyPapers) {
  editedPdf("busy");
  store.busy().insert("busy");
  store.rescan();
  EXPECT_THAT(changes, IsEmpty());
}

TEST_F(PdfStoreWatchTest, RootChangeIsLoggedAndWatchingRestarts) {
  store.storeEvents({{store.folder(), true}});
  EXPECT_EQ(log.messages().back(), "pdfs: folder moved — now " + store.folder());
  EXPECT_TRUE(store.isWatching());
}

TEST_F(PdfStoreWatchTest, RescanSkipsFifosAndLinksAndStillReportsRealEdits) {
  editedPdf("real");
  // A FIFO named like an edited PDF, and one named like the sidecar of one.
  std::string piped = store.pathFor("piped");
  ASSERT_TRUE(MakeFifo(piped));
  PdfStore::markSynced(piped, "piped", std::string("e"), 1000);
  std::string quiet = editedPdf("quiet");
  std::string quiet_sidecar = PdfStore::sidecarFor(quiet);
  g_unlink(quiet_sidecar.c_str());
  ASSERT_TRUE(MakeFifo(quiet_sidecar));
  // An edited PDF that lives outside the folder, linked in under a paper's name.
  TempDir outside;
  std::string target =
      outside.write("outside.pdf", "%PDF-1.7\n" + std::string(100, 'x') + "\n%%EOF\n");
  SetMTime(target, 2000);
  std::string linked = store.pathFor("linked");
  ASSERT_EQ(symlink(target.c_str(), linked.c_str()), 0);
  PdfStore::markSynced(linked, "linked", std::string("e"), 1000);

  EXPECT_TRUE(ReturnsDespiteFifos({piped, quiet_sidecar}, [&] { store.rescan(); }));
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].id, "real");
}

TEST_F(PdfStoreWatchTest, TouchedPdfWhoseSidecarIsAFifoNeverBlocks) {
  std::string path = editedPdf("touched");
  std::string sidecar = PdfStore::sidecarFor(path);
  g_unlink(sidecar.c_str());
  ASSERT_TRUE(MakeFifo(sidecar));
  EXPECT_TRUE(ReturnsDespiteFifos({sidecar}, [&] {
    store.fileTouched(path);
    scheduler.runAll();
  }));
  EXPECT_THAT(changes, IsEmpty());
}

TEST_F(PdfStoreWatchTest, LostEventsBringARescan) {
  // Edited while the watch's queue overflowed: no event names it.
  editedPdf("2401.77777");
  store.storeEvents({{"", false, true}});
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].id, "2401.77777");
  EXPECT_THAT(log.messages(), Contains("pdfs: watch overflowed — rescanning"));
  EXPECT_EQ(log.messages().back(), "pdfs: 2401.77777.pdf has unsynced edits from earlier");
}

} // namespace
} // namespace orvane
