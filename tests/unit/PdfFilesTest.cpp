#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/Fifo.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace orvane {
namespace {

class SidecarTest : public ::testing::Test {
protected:
  std::string pdf(double mtime) {
    std::string path =
        dir.write("2401.01234.pdf", "%PDF-1.7\n" + std::string(40, 'x') + "\n%%EOF\n");
    SetMTime(path, mtime);
    return path;
  }
  TempDir dir;
};

TEST_F(SidecarTest, NamesFollowThePaperId) {
  VirtualScheduler scheduler;
  PdfStore store(scheduler);
  store.setAccount("a");
  EXPECT_EQ(FileName(store.pathFor("2401.01234")), "2401.01234.pdf");
  EXPECT_EQ(FileName(store.pathFor("ab/cd")), "ab_cd.pdf");
  EXPECT_EQ(FileName(store.pathFor("cs/0101/Mixed Case")), "cs_0101_Mixed Case.pdf");
  EXPECT_EQ(PdfStore::sidecarFor("/lib/a/2401.01234.pdf"), "/lib/a/.2401.01234.pdf.synced");
}

TEST_F(SidecarTest, MarkSyncedWritesIdAndEtagAndStampsTheTime) {
  std::string path = pdf(1700000000.25);
  PdfStore::markSynced(path, "2401.01234", std::string("abc"), 1700000000.25);
  auto sidecar = PdfStore::sidecarAt(path);
  ASSERT_TRUE(sidecar);
  EXPECT_EQ((*sidecar)["id"], "2401.01234");
  EXPECT_EQ((*sidecar)["etag"], "abc");
  EXPECT_DOUBLE_EQ(MTime(PdfStore::sidecarFor(path)), 1700000000.25);
  PdfStore::markSynced(path, "2401.01234", std::nullopt, 5);
  EXPECT_EQ((*PdfStore::sidecarAt(path))["etag"], "");
}

TEST_F(SidecarTest, PdfWithoutSidecarIsNeverEdited) {
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(pdf(4000000000.0)));
}

TEST_F(SidecarTest, ToleranceIsHalfASecondStrictly) {
  std::string path = pdf(1000.0);
  PdfStore::markSynced(path, "x", std::string(""), 1000.0);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
  PdfStore::markSynced(path, "x", std::string(""), 999.5);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
  PdfStore::markSynced(path, "x", std::string(""), 999.49);
  EXPECT_TRUE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(SidecarTest, SidecarStampedZeroOrEarlierMeansNotEdited) {
  std::string path = pdf(1000.0);
  PdfStore::markSynced(path, "x", std::string(""), 0);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
  PdfStore::markSynced(path, "x", std::string(""), -10);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(SidecarTest, ArrayOrNullSidecarReadsAsNone) {
  std::string path = pdf(1000.0);
  dir.write(".2401.01234.pdf.synced", "[1,2]");
  EXPECT_EQ(PdfStore::sidecarAt(path), std::nullopt);
  dir.write(".2401.01234.pdf.synced", "null");
  EXPECT_EQ(PdfStore::sidecarAt(path), std::nullopt);
  dir.write(".2401.01234.pdf.synced", "{not json");
  EXPECT_EQ(PdfStore::sidecarAt(path), std::nullopt);
  dir.write(".2401.01234.pdf.synced", R"({"etag":"e","id":"x"})");
  EXPECT_EQ((*PdfStore::sidecarAt(path))["id"], "x");
}

TEST(CompletePdfTest, ThirtyOneBytesAreTooFewThirtyTwoAreEnough) {
  TempDir dir;
  std::string body = "%PDF-1.4 %%EOF";
  std::string short_one = dir.write("a.pdf", body + std::string(31 - body.size(), ' '));
  std::string long_one = dir.write("b.pdf", body + std::string(32 - body.size(), ' '));
  EXPECT_FALSE(CompletePdf(short_one));
  EXPECT_TRUE(CompletePdf(long_one));
}

TEST(CompletePdfTest, EofMustLieInTheLast2048Bytes) {
  TempDir dir;
  std::string early = "%PDF-1.4\n" + std::string(91, 'x') + "%%EOF" + std::string(4895, 'y');
  ASSERT_EQ(early.size(), 5000u);
  EXPECT_FALSE(CompletePdf(dir.write("early.pdf", early)));
  std::string late = "%PDF-1.4\n" + std::string(4000, 'x') + "%%EOF\n" + std::string(2000, 'y');
  EXPECT_TRUE(CompletePdf(dir.write("late.pdf", late)));
}

TEST(CompletePdfTest, HeadMustBeUpperCaseAndTheFileMustExist) {
  TempDir dir;
  EXPECT_FALSE(CompletePdf(dir.write("lower.pdf", "%pdf-1.4\n" + std::string(40, 'x') + "%%EOF")));
  EXPECT_FALSE(CompletePdf(dir.write("html.pdf", "<html>" + std::string(40, 'x') + "%%EOF")));
  EXPECT_FALSE(CompletePdf(dir.write("empty.pdf", "")));
  EXPECT_FALSE(CompletePdf(dir.file("missing.pdf")));
}

TEST(PdfFilesTest, MissingFilesGiveZero) {
  EXPECT_EQ(MTime("/nonexistent/x.pdf"), 0);
  EXPECT_EQ(FileSize("/nonexistent/x.pdf"), 0);
}

TEST(PdfFilesTest, ExtensionsAreLowerCasedAndHiddenNamesHaveNone) {
  EXPECT_EQ(LowerExtension("/a/B.PDF"), "pdf");
  EXPECT_EQ(LowerExtension("/a/.x.pdf.synced"), "synced");
  EXPECT_EQ(LowerExtension("/a/notes.txt"), "txt");
  EXPECT_EQ(LowerExtension("/a/.hidden"), "");
  EXPECT_EQ(LowerExtension("/a/.x.pdf.download-AB12CD"), "download-ab12cd");
}

// Files in the account folder that are not plain files.

constexpr char kSidecarText[] = R"({"id":"2401.01234","etag":"e"})";

TEST_F(SidecarTest, FifoNamedLikeASidecarIsNoSidecarAndNeverBlocks) {
  std::string path = pdf(2000);
  ASSERT_TRUE(MakeFifo(PdfStore::sidecarFor(path)));
  std::optional<nlohmann::json> sidecar = nlohmann::json("untouched");
  bool edited = true;
  EXPECT_TRUE(ReturnsDespiteFifos({PdfStore::sidecarFor(path)}, [&] {
    sidecar = PdfStore::sidecarAt(path);
    edited = PdfStore::hasUnsyncedEdits(path);
  }));
  EXPECT_EQ(sidecar, std::nullopt);
  EXPECT_FALSE(edited);
}

TEST_F(SidecarTest, FifoNamedLikeAPdfIsNoFileAndNeverBlocks) {
  std::string path = dir.file("piped.pdf");
  ASSERT_TRUE(MakeFifo(path));
  PdfStore::markSynced(path, "piped", std::string("e"), 1000);
  bool complete = true, edited = true, exists = true;
  EXPECT_TRUE(ReturnsDespiteFifos({path}, [&] {
    complete = CompletePdf(path);
    edited = PdfStore::hasUnsyncedEdits(path);
    exists = FileExists(path);
  }));
  EXPECT_FALSE(complete);
  EXPECT_FALSE(edited);
  EXPECT_FALSE(exists);
  EXPECT_EQ(MTime(path), 0);
}

TEST_F(SidecarTest, SocketOrFolderNamedLikeAPdfIsNoFile) {
  std::string socket_path = dir.file("s.pdf");
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(socket_path.size(), sizeof address.sun_path);
  socket_path.copy(address.sun_path, socket_path.size());
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::string folder = dir.file("f.pdf");
  g_mkdir(folder.c_str(), 0755);
  for (const std::string& path : {socket_path, folder}) {
    EXPECT_FALSE(FileExists(path)) << path;
    EXPECT_FALSE(CompletePdf(path)) << path;
    EXPECT_EQ(FileSize(path), 0) << path;
  }
  close(listener);
}

TEST_F(SidecarTest, SidecarLargerThan64KiBIsNoSidecar) {
  std::string path = pdf(2000);
  std::string text = kSidecarText;
  dir.write(".2401.01234.pdf.synced", text + std::string(65536 - text.size(), ' '));
  SetMTime(PdfStore::sidecarFor(path), 1000);
  ASSERT_TRUE(PdfStore::sidecarAt(path));
  EXPECT_TRUE(PdfStore::hasUnsyncedEdits(path));
  dir.write(".2401.01234.pdf.synced", text + std::string(65537 - text.size(), ' '));
  SetMTime(PdfStore::sidecarFor(path), 1000);
  EXPECT_EQ(PdfStore::sidecarAt(path), std::nullopt);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(SidecarTest, SidecarThatLinksOutOfTheFolderIsNoSidecar) {
  TempDir outside;
  std::string target = outside.write("elsewhere.synced", kSidecarText);
  SetMTime(target, 1000);
  std::string path = pdf(2000);
  ASSERT_EQ(symlink(target.c_str(), PdfStore::sidecarFor(path).c_str()), 0);
  EXPECT_EQ(PdfStore::sidecarAt(path), std::nullopt);
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(SidecarTest, PdfThatLinksOutOfTheFolderIsNoLibraryFile) {
  TempDir outside;
  std::string target =
      outside.write("elsewhere.pdf", "%PDF-1.7\n" + std::string(40, 'x') + "\n%%EOF\n");
  SetMTime(target, 2000);
  std::string path = dir.file("linked.pdf");
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  dir.write(".linked.pdf.synced", R"({"id":"linked","etag":""})");
  SetMTime(PdfStore::sidecarFor(path), 1000);
  EXPECT_FALSE(FileExists(path));
  EXPECT_EQ(MTime(path), 0);
  EXPECT_EQ(FileSize(path), 0);
  EXPECT_FALSE(CompletePdf(path));
  EXPECT_FALSE(PdfStore::hasUnsyncedEdits(path));
}

TEST_F(SidecarTest, MarkSyncedNeverWritesThroughALink) {
  TempDir outside;
  // A paper id long enough that the sidecar's name fits the folder but a
  // temporary name beside it would not: the write fails, and the stamp must
  // not land on whatever the sidecar's name points at.
  for (size_t length : {size_t(10), size_t(240)}) {
    std::string target = outside.write("target" + std::to_string(length), "keep me");
    SetMTime(target, 1234);
    std::string id(length, 'p');
    std::string path = dir.file(id + ".pdf");
    ASSERT_EQ(symlink(target.c_str(), PdfStore::sidecarFor(path).c_str()), 0) << length;
    PdfStore::markSynced(path, id, std::string("e"), 5000);
    EXPECT_EQ(TempDir::Read(target), "keep me") << length;
    EXPECT_DOUBLE_EQ(MTime(target), 1234) << length;
  }
}

TEST_F(SidecarTest, EtagTooLargeForASidecarLeavesTheOldOneAsItWas) {
  std::string path = pdf(1000);
  PdfStore::markSynced(path, "2401.01234", std::string("v1"), 1000);
  PdfStore::markSynced(path, "2401.01234", std::string(kMaxSidecarBytes, 'e'), 2000);
  auto sidecar = PdfStore::sidecarAt(path);
  ASSERT_TRUE(sidecar);
  EXPECT_EQ((*sidecar)["etag"], "v1");
  EXPECT_DOUBLE_EQ(MTime(PdfStore::sidecarFor(path)), 1000);
  // Just small enough: written and read back whole.
  std::string record = nlohmann::json{{"id", "2401.01234"}, {"etag", ""}}.dump();
  std::string largest(kMaxSidecarBytes - record.size(), 'e');
  PdfStore::markSynced(path, "2401.01234", largest, 2000);
  EXPECT_EQ(PdfStore::sidecarString(*PdfStore::sidecarAt(path), "etag"), largest);
}

TEST_F(SidecarTest, MarkSyncedStampsTimesNoFileCanHoldWithoutHarm) {
  std::string path = pdf(1000);
  for (double mtime : {1e300, -1e300, 9.3e18, std::nan(""), 1e-300}) {
    PdfStore::markSynced(path, "2401.01234", std::string("e"), mtime);
    auto sidecar = PdfStore::sidecarAt(path);
    ASSERT_TRUE(sidecar) << mtime;
    EXPECT_EQ((*sidecar)["etag"], "e");
  }
}

} // namespace
} // namespace orvane
