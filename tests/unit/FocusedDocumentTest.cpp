#include "capture/FocusedDocument.h"

#include "base/GObjectPtr.h"
#include "support/ProcessTable.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

constexpr int kViewerPid = 5151;

// A /proc of one viewer process, made of real files and links.
class FocusedDocumentTest : public ::testing::Test {
protected:
  std::string pdf(const std::string& name) { return docs.write(name, "%PDF-1.4\n%%EOF\n"); }
  std::optional<std::string> find(const std::string& title) {
    return FocusedDocumentPath(kViewerPid, title, sources);
  }

  ProcessTable table{kViewerPid};
  TempDir dir;
  TempDir docs;
  DocumentSources sources{table.root(), dir.file("recently-used.xbel"), std::nullopt};
};

TEST_F(FocusedDocumentTest, OnePdfOnTheCommandLineIsTheDocument) {
  std::string paper = pdf("paper.pdf");
  table.commandLine({"/usr/bin/evince", "--fullscreen", paper});
  EXPECT_EQ(find("anything at all"), paper);
}

TEST_F(FocusedDocumentTest, FileAddressIsPercentDecoded) {
  std::string paper = pdf("two words é.PDF");
  GCharPtr uri(g_filename_to_uri(paper.c_str(), nullptr, nullptr));
  ASSERT_NE(uri.str().find("%20"), std::string::npos);
  table.commandLine({"zathura", uri.str()});
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, RelativePathIsTakenFromTheWorkingFolder) {
  std::string paper = pdf("sub/relative.pdf");
  table.commandLine({"viewer", "sub/relative.pdf"});
  table.workingFolder(docs.path());
  EXPECT_EQ(find(""), docs.path() + "/sub/relative.pdf");
}

TEST_F(FocusedDocumentTest, OpenPdfIsTheDocument) {
  std::string paper = pdf("held.pdf");
  table.commandLine({"viewer"});
  table.holdOpen(3, "/dev/null");
  table.holdOpen(4, "socket:[12345]");
  table.holdOpen(7, paper);
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, SameFileNamedAndHeldOpenCountsOnce) {
  std::string paper = pdf("same.pdf");
  table.commandLine({"viewer", paper});
  table.holdOpen(5, paper);
  EXPECT_EQ(find("unrelated title"), paper);
}

TEST_F(FocusedDocumentTest, MissingAndNonPdfFilesAreNoCandidates) {
  std::string text = docs.write("notes.txt", "text");
  std::string paper = pdf("real.pdf");
  g_mkdir_with_parents((docs.path() + "/folder.pdf").c_str(), 0755);
  table.commandLine({"viewer", text, docs.file("gone.pdf"), docs.file("folder.pdf"), paper});
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, OfSeveralTheTitleChooses) {
  std::string first = pdf("Alpha Paper.pdf");
  std::string second = pdf("Beta Paper.pdf");
  table.commandLine({"viewer", first, second});
  EXPECT_EQ(find("Beta Paper.pdf — Document Viewer"), second);
  EXPECT_EQ(find("Alpha Paper — Page 3 of 12"), first); // the name without extension
  EXPECT_EQ(find("Document Viewer"), std::nullopt);
}

TEST_F(FocusedDocumentTest, LongerNameWinsOverItsOwnPrefix) {
  std::string shorter = pdf("paper.pdf");
  std::string longer = pdf("paper-2.pdf");
  table.commandLine({"viewer", shorter, longer});
  EXPECT_EQ(find("paper-2.pdf"), longer);
  EXPECT_EQ(find("paper.pdf (page 1)"), shorter);
}

TEST_F(FocusedDocumentTest, TitleThatIsAnAbsolutePathCounts) {
  std::string paper = pdf("shown.pdf");
  table.commandLine({"viewer"});
  EXPECT_EQ(find(paper), paper);
  EXPECT_EQ(find(docs.file("not-there.pdf")), std::nullopt);
}

TEST_F(FocusedDocumentTest, WithoutCandidatesTheLibraryAndRecentFilesAreMatched) {
  std::string library_pdf = pdf("library/Quantum Optics.pdf");
  pdf("library/Other.pdf");
  std::string recent_pdf = pdf("recent/Field Notes.PDF");
  GCharPtr uri(g_filename_to_uri(recent_pdf.c_str(), nullptr, nullptr));
  TempDir::WriteFile(sources.recently_used_xbel,
                     "<?xml version=\"1.0\"?>\n<xbel version=\"1.0\">\n"
                     "<bookmark href=\"file:///nowhere/gone.pdf\"/>\n"
                     "<bookmark href=\"" +
                         uri.str() +
                         "\" added=\"x\"><info/></bookmark>\n"
                         "<bookmark href=\"https://example.org/web.pdf\"/>\n</xbel>\n");
  sources.library_folder = docs.path() + "/library";
  table.commandLine({"viewer"});
  EXPECT_EQ(find("Quantum Optics — Evince"), library_pdf);
  EXPECT_EQ(find("Field Notes.PDF"), recent_pdf);
  EXPECT_EQ(find("Something else"), std::nullopt);
  EXPECT_EQ(find(""), std::nullopt);
}

TEST_F(FocusedDocumentTest, CandidatesFromTheProcessWinOverTheLibrary) {
  std::string library_pdf = pdf("library/Paper.pdf");
  std::string open_pdf = pdf("elsewhere.pdf");
  sources.library_folder = docs.path() + "/library";
  table.commandLine({"viewer", open_pdf});
  EXPECT_EQ(find("Paper.pdf"), open_pdf);
}

TEST_F(FocusedDocumentTest, NoProcessNoTitleNoDocument) {
  EXPECT_EQ(FocusedDocumentPath(0, "", sources), std::nullopt);
  EXPECT_EQ(find("a title"), std::nullopt); // the process has no /proc entry
}

TEST_F(FocusedDocumentTest, GarbageCommandLineIsSurvived) {
  std::string paper = pdf("kept.pdf");
  std::string garbage;
  for (unsigned i = 0; i < 300000; ++i)
    garbage += char(i * 7919u % 256u);
  TempDir::WriteFile(table.process() + "/cmdline", garbage + '\0' + "file://%zz%00.pdf" + '\0' +
                                                       "file:" + '\0' + std::string(70000, '/') +
                                                       ".pdf" + '\0' + paper + '\0');
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, CommandLineThatIsAFifoDoesNotBlock) {
  g_mkdir_with_parents(table.process().c_str(), 0755);
  ASSERT_EQ(mkfifo((table.process() + "/cmdline").c_str(), 0600), 0);
  std::string paper = pdf("open.pdf");
  table.holdOpen(3, paper);
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, LinkLoopsAmongOpenFilesAreSkipped) {
  std::string paper = pdf("fine.pdf");
  std::string loop = docs.file("loop.pdf");
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  table.commandLine({"viewer", loop});
  table.holdOpen(3, loop);
  table.holdOpen(4, table.process() + "/fd/4"); // a link to itself
  table.holdOpen(5, paper);
  EXPECT_EQ(find(""), paper);
}

TEST_F(FocusedDocumentTest, MalformedRecentFilesGiveWhatCameBeforeTheFault) {
  std::string recent_pdf = pdf("Early Entry.pdf");
  GCharPtr uri(g_filename_to_uri(recent_pdf.c_str(), nullptr, nullptr));
  TempDir::WriteFile(sources.recently_used_xbel,
                     "<xbel><bookmark href=\"" + uri.str() +
                         "\"/><bookmark href=<<<&bogus; \0\0 unterminated");
  EXPECT_EQ(find("Early Entry"), recent_pdf);
  TempDir::WriteFile(sources.recently_used_xbel, std::string(100000, '<'));
  EXPECT_EQ(find("Early Entry"), std::nullopt);
  TempDir::WriteFile(sources.recently_used_xbel, "");
  EXPECT_EQ(find("Early Entry"), std::nullopt);
}

TEST_F(FocusedDocumentTest, HugeRecentFilesAreReadToTheEnd) {
  std::string recent_pdf = pdf("Last Entry.pdf");
  GCharPtr uri(g_filename_to_uri(recent_pdf.c_str(), nullptr, nullptr));
  std::string xbel = "<?xml version=\"1.0\"?>\n<xbel version=\"1.0\">\n";
  for (int i = 0; i < 250000; ++i)
    xbel += "<bookmark href=\"file:///nowhere/missing-" + std::to_string(i) +
            ".pdf\"><info><metadata owner=\"x\"/></info></bookmark>\n";
  xbel += "<bookmark href=\"" + uri.str() + "\"/>\n</xbel>\n";
  ASSERT_GT(xbel.size(), 20u << 20);
  TempDir::WriteFile(sources.recently_used_xbel, xbel);
  EXPECT_EQ(find("Last Entry"), recent_pdf);
}

TEST_F(FocusedDocumentTest, RecentFilesThatAreAFolderOrFifoAreIgnored) {
  g_mkdir_with_parents(sources.recently_used_xbel.c_str(), 0755);
  EXPECT_EQ(find("x"), std::nullopt);
  DocumentSources fifo_sources = sources;
  fifo_sources.recently_used_xbel = dir.file("fifo.xbel");
  ASSERT_EQ(mkfifo(fifo_sources.recently_used_xbel.c_str(), 0600), 0);
  EXPECT_EQ(FocusedDocumentPath(kViewerPid, "x", fifo_sources), std::nullopt);
}

TEST(RecentlyUsedXbelPathTest, LivesInTheDataFolder) {
  EXPECT_EQ(RecentlyUsedXbelPath(), std::string(g_getenv("XDG_DATA_HOME")) + "/recently-used.xbel");
}

} // namespace
} // namespace orvane
