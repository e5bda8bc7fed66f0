#include "library/PdfFiles.h"
#include "library/PdfStore.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace orvane
