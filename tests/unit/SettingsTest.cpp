#include "base/Settings.h"

#include "base/BuildInfo.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace orvane {
namespace {

using namespace std::string_literals;

TEST(SettingsTest, RegisteredDefaultAnswersWhenTheFileHasNoValue) {
  TempDir dir;
  Settings settings(dir.path() + "/orvane/settings.ini");
  settings.registerDefaults({{"AppURL", std::string("http://127.0.0.1:8000")}});
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://127.0.0.1:8000");
  EXPECT_EQ(settings.stringForKey("Unknown"), std::nullopt);
}

TEST(SettingsTest, ValueInTheFileWinsOverTheDefault) {
  TempDir dir;
  Settings settings(dir.path() + "/orvane/settings.ini");
  settings.registerDefaults({{"AppURL", std::string("http://127.0.0.1:8000")},
                             {"NSAutomaticDashSubstitutionEnabled", false}});
  settings.setString("AppURL", "https://papers.example");
  settings.setBool("NSAutomaticDashSubstitutionEnabled", true);
  EXPECT_EQ(settings.stringForKey("AppURL"), "https://papers.example");
  EXPECT_TRUE(settings.boolForKey("NSAutomaticDashSubstitutionEnabled"));
  settings.remove("AppURL");
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://127.0.0.1:8000");
}

TEST(SettingsTest, FileIsReadAfreshAtEveryLookup) {
  TempDir dir;
  std::string path = dir.path() + "/settings.ini";
  Settings settings(path);
  dir.write("settings.ini", "[Orvane]\nAppURL=http://one.example\n");
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://one.example");
  dir.write("settings.ini", "[Orvane]\nAppURL=http://two.example\n");
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://two.example");
}

size_t CountOf(const std::vector<std::string>& lines, const std::string& line) {
  return size_t(std::count(lines.begin(), lines.end(), line));
}

TEST(SettingsTest, BadLineInTheMiddleCostsNoOtherKey) {
  LogCapture log;
  TempDir dir;
  Settings settings(dir.write("settings.ini", "[Orvane]\n"
                                              "AppURL=http://one.example\n"
                                              "this line is not a key file line\n"
                                              "ProjectDir=/srv/site\n"));
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://one.example");
  EXPECT_EQ(settings.stringForKey("ProjectDir"), "/srv/site");
  // The file is read at every lookup; the line is reported once.
  EXPECT_EQ(CountOf(log.messages(), "settings: line 3 of settings.ini ignored"), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST(SettingsTest, HeldReportsAreLoggedWhenReleased) {
  LogCapture log;
  TempDir dir;
  Settings settings(dir.write("settings.ini", "[Orvane]\n"
                                              "not a line\n"
                                              "AppURL=http://one.example\n"));
  settings.holdBadLineReports();
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://one.example");
  EXPECT_TRUE(log.messages().empty());
  settings.releaseBadLineReports();
  EXPECT_EQ(log.messages(), std::vector<std::string>{"settings: line 2 of settings.ini ignored"});
  // Once reported, never again.
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://one.example");
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST(SettingsTest, EveryKindOfBadLineIsSkippedAlone) {
  LogCapture log;
  TempDir dir;
  Settings settings(dir.write("settings.ini", "Orphan=before any group\n" // 1
                                              "[Orvane]\n"                // 2
                                              "A=1\n"                     // 3
                                              "=no key\n"                 // 4
                                              "[unclosed\n"               // 5
                                              "B=back\\xslash\n"          // 6
                                              "C=ends in a backslash\\\n" // 7
                                              "D=2\n"                     // 8
                                              "E=\xff\xfe not UTF-8\n"    // 9
                                              "[Orvane] trailing words\n" // 10
                                              "F=3\n"));                  // 11
  EXPECT_EQ(settings.stringForKey("A"), "1");
  EXPECT_EQ(settings.stringForKey("D"), "2");
  EXPECT_EQ(settings.stringForKey("F"), "3");
  for (const char* key : {"Orphan", "B", "C", "E"})
    EXPECT_EQ(settings.stringForKey(key), std::nullopt) << key;
  std::vector<std::string> messages = log.messages();
  for (int line : {1, 4, 5, 6, 7, 9, 10})
    EXPECT_EQ(
        CountOf(messages, "settings: line " + std::to_string(line) + " of settings.ini ignored"),
        1u)
        << line;
  EXPECT_EQ(messages.size(), 7u);
}

TEST(SettingsTest, ABadLineThatMovesIsReportedAgain) {
  LogCapture log;
  TempDir dir;
  Settings settings(dir.write("settings.ini", "[Orvane]\nnonsense\nA=1\n"));
  EXPECT_EQ(settings.stringForKey("A"), "1");
  dir.write("settings.ini", "[Orvane]\n# a comment\nnonsense\nA=1\n");
  EXPECT_EQ(settings.stringForKey("A"), "1");
  EXPECT_EQ(settings.stringForKey("A"), "1");
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"settings: line 2 of settings.ini ignored",
                                                      "settings: line 3 of settings.ini ignored"}));
}

TEST(SettingsTest, WriteKeepsWhatItDoesNotUnderstand) {
  TempDir dir;
  std::string original = "# Orvane's settings\n"
                         "[Other]\n"
                         "Key=value with \\; and \\x that is not ours\n"
                         "\n"
                         "[Orvane]\n"
                         "  # an indented comment\n"
                         "AppURL=http://old.example\n"
                         "this line is not a key file line\n"
                         "Unknown[de]=Wert\n"
                         "Flag = true\n"
                         "\n"
                         "[Third]\n"
                         "X=1\n";
  std::string path = dir.write("settings.ini", original);
  Settings settings(path);

  settings.setString("AppURL", "http://new.example");
  std::string expected = original;
  expected.replace(expected.find("AppURL=http://old.example"),
                   std::string("AppURL=http://old.example").size(), "AppURL=http://new.example");
  EXPECT_EQ(TempDir::Read(path), expected);

  // A key not yet in the file joins the end of the [Orvane] group.
  settings.setString("ProjectDir", "/srv/site");
  expected.insert(expected.find("\n\n[Third]") + 1, "ProjectDir=/srv/site\n");
  EXPECT_EQ(TempDir::Read(path), expected);

  settings.setBool("Flag", false);
  expected.replace(expected.find("Flag = true"), std::string("Flag = true").size(), "Flag=false");
  EXPECT_EQ(TempDir::Read(path), expected);

  settings.remove("AppURL");
  expected.erase(expected.find("AppURL=http://new.example\n"),
                 std::string("AppURL=http://new.example\n").size());
  EXPECT_EQ(TempDir::Read(path), expected);
  EXPECT_EQ(settings.stringForKey("AppURL"), std::nullopt);
  EXPECT_EQ(settings.stringForKey("ProjectDir"), "/srv/site");
  EXPECT_FALSE(settings.boolForKey("Flag"));
}

TEST(SettingsTest, WriteKeepsBadBytesAndLineEnds) {
  TempDir dir;
  std::string original = "[Orvane]\r\nA=1\r\nnul \0 inside\r\nB=\xc3\x28\r\nC=3"s;
  std::string path = dir.write("settings.ini", original);
  Settings settings(path);
  EXPECT_EQ(settings.stringForKey("A"), "1");
  EXPECT_EQ(settings.stringForKey("C"), "3");

  settings.setString("A", "one");
  settings.setString("D", "four");
  std::string expected = "[Orvane]\r\nA=one\r\nnul \0 inside\r\nB=\xc3\x28\r\nC=3\r\nD=four\r\n"s;
  EXPECT_EQ(TempDir::Read(path), expected);
  EXPECT_EQ(settings.stringForKey("D"), "four");
}

TEST(SettingsTest, WriteToAFileWithoutTheGroupAppendsIt) {
  TempDir dir;
  std::string path = dir.write("settings.ini", "[Other]\nX=1");
  Settings settings(path);
  settings.setString("AppURL", "http://a.example");
  EXPECT_EQ(TempDir::Read(path), "[Other]\nX=1\n\n[Orvane]\nAppURL=http://a.example\n");
}

TEST(SettingsTest, GLibEscapesRoundTrip) {
  TempDir dir;
  std::string path = dir.file("settings.ini");
  Settings settings(path);
  const std::vector<std::string> values = {
      "  two leading spaces",
      "\ttab first",
      "inner\ttab and trailing space ",
      "line\nfeed",
      "carriage\rreturn",
      "back\\slash \\s \\n kept as text",
      "ünïcødé — ⌥",
      "",
      "= sign = kept",
      "# not a comment",
      "[not a group]",
      "\\",
  };
  for (size_t i = 0; i < values.size(); ++i)
    settings.setString("Key" + std::to_string(i), values[i]);
  GKeyFile* glib = g_key_file_new();
  ASSERT_TRUE(g_key_file_load_from_file(glib, path.c_str(), G_KEY_FILE_NONE, nullptr));
  for (size_t i = 0; i < values.size(); ++i) {
    std::string key = "Key" + std::to_string(i);
    EXPECT_EQ(settings.stringForKey(key), values[i]) << key;
    gchar* read = g_key_file_get_string(glib, "Orvane", key.c_str(), nullptr);
    EXPECT_STREQ(read, values[i].c_str()) << key;
    g_free(read);
  }

  // And what GLib writes reads back here.
  GKeyFile* written = g_key_file_new();
  for (size_t i = 0; i < values.size(); ++i)
    g_key_file_set_string(written, "Orvane", ("Key" + std::to_string(i)).c_str(),
                          values[i].c_str());
  g_key_file_set_boolean(written, "Orvane", "Yes", TRUE);
  g_key_file_set_boolean(written, "Orvane", "No", FALSE);
  ASSERT_TRUE(g_key_file_save_to_file(written, path.c_str(), nullptr));
  for (size_t i = 0; i < values.size(); ++i)
    EXPECT_EQ(settings.stringForKey("Key" + std::to_string(i)), values[i]) << i;
  EXPECT_TRUE(settings.boolForKey("Yes"));
  EXPECT_FALSE(settings.boolForKey("No"));
  g_key_file_free(glib);
  g_key_file_free(written);
}

TEST(SettingsTest, BooleanForms) {
  TempDir dir;
  Settings settings(
      dir.write("settings.ini", "[Orvane]\nA=true\nB=1\nC=false\nD=0\nE=true  \nF=yes\nG=TRUE\n"));
  settings.registerDefaults({{"F", true}, {"G", true}});
  EXPECT_TRUE(settings.boolForKey("A"));
  EXPECT_TRUE(settings.boolForKey("B"));
  EXPECT_FALSE(settings.boolForKey("C"));
  EXPECT_FALSE(settings.boolForKey("D"));
  EXPECT_TRUE(settings.boolForKey("E"));
  // Not a boolean: the registered default answers.
  EXPECT_TRUE(settings.boolForKey("F"));
  EXPECT_TRUE(settings.boolForKey("G"));
}

TEST(SettingsTest, LaterValueOfAKeyWinsAndRepeatedGroupsJoin) {
  TempDir dir;
  Settings settings(dir.write("settings.ini", "[Orvane]\nA=1\n[Other]\nA=other\nB=other\n"
                                              "[Orvane]\nA=2\n"));
  EXPECT_EQ(settings.stringForKey("A"), "2");
  EXPECT_EQ(settings.stringForKey("B"), std::nullopt);
  settings.remove("A");
  EXPECT_EQ(settings.stringForKey("A"), std::nullopt);
  EXPECT_EQ(TempDir::Read(settings.filePath()), "[Orvane]\n[Other]\nA=other\nB=other\n[Orvane]\n");
}

// Hostile files: the program stays up and the other keys are still read.

TEST(SettingsTest, TenMegabyteLineIsSkipped) {
  LogCapture log;
  TempDir dir;
  std::string path =
      dir.write("settings.ini", "[Orvane]\nA=1\n" + std::string(10 << 20, 'x') +
                                    "\nB=2\nLong=" + std::string(10 << 20, 'y') + "\n");
  Settings settings(path);
  EXPECT_EQ(settings.stringForKey("A"), "1");
  EXPECT_EQ(settings.stringForKey("B"), "2");
  EXPECT_EQ(settings.stringForKey("Long")->size(), size_t(10 << 20));
  settings.setString("A", "one");
  EXPECT_EQ(settings.stringForKey("A"), "one");
  EXPECT_EQ(TempDir::Read(path).size(), size_t(2 * (10 << 20) + 26));
  EXPECT_EQ(log.messages(), std::vector<std::string>{"settings: line 3 of settings.ini ignored"});
}

TEST(SettingsTest, ManyLinesAreReadAndFewAreReported) {
  LogCapture log;
  TempDir dir;
  std::string text = "[Orvane]\n";
  for (int i = 0; i < 200000; ++i)
    text += "Key" + std::to_string(i) + "=" + std::to_string(i) + "\nbad line\n";
  Settings settings(dir.write("settings.ini", text));
  EXPECT_EQ(settings.stringForKey("Key0"), "0");
  EXPECT_EQ(settings.stringForKey("Key199999"), "199999");
  // A file of bad lines does not flood the log.
  std::vector<std::string> messages = log.messages();
  EXPECT_LE(messages.size(), 101u);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "settings: line 3 of settings.ini ignored");
}

TEST(SettingsTest, DirectoryInPlaceOfTheFileReadsAsEmpty) {
  TempDir dir;
  std::string path = dir.file("settings.ini");
  ASSERT_EQ(g_mkdir(path.c_str(), 0700), 0);
  Settings settings(path);
  settings.registerDefaults({{"AppURL", std::string("http://default.example")}});
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://default.example");
  settings.setString("AppURL", "http://lost.example");
  EXPECT_TRUE(g_file_test(path.c_str(), G_FILE_TEST_IS_DIR));
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://default.example");
}

TEST(SettingsTest, FifoInPlaceOfTheFileIsNotWaitedOn) {
  TempDir dir;
  std::string path = dir.file("settings.ini");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  Settings settings(path);
  settings.registerDefaults({{"AppURL", std::string("http://default.example")}});

  // Should the reader wait for a writer, this one comes after a while and
  // ends the wait, so a broken reader fails the test instead of hanging it.
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  std::atomic<bool> rescued{false};
  std::thread rescuer([&] {
    std::unique_lock<std::mutex> lock(mutex);
    if (finished.wait_for(lock, std::chrono::seconds(20), [&] { return done; }))
      return;
    rescued = true;
    int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0)
      close(fd);
  });
  std::optional<std::string> value = settings.stringForKey("AppURL");
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  finished.notify_all();
  rescuer.join();
  EXPECT_FALSE(rescued) << "the settings reader waited on a FIFO";
  EXPECT_EQ(value, "http://default.example");
}

TEST(SettingsTest, KeysAndValuesTheFileCannotHoldAreNotWritten) {
  LogCapture log;
  TempDir dir;
  std::string original = "[Orvane]\nAppURL=http://kept.example\n";
  std::string path = dir.write("settings.ini", original);
  Settings settings(path);
  settings.setString("AppURL", "bell\a");
  settings.setString("AppURL", "nul\0inside"s);
  settings.setString("AppURL", "\xff not UTF-8");
  for (const char* key : {"", "a=b", "#hidden", " padded", "line\nfeed", "Key[de]", "[Orvane]"})
    settings.setString(key, "value");
  EXPECT_EQ(TempDir::Read(path), original);
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://kept.example");
  std::vector<std::string> messages = log.messages();
  EXPECT_EQ(CountOf(messages, "settings: AppURL cannot be stored in settings.ini, not saved"), 3u);
  EXPECT_EQ(CountOf(messages, "settings: line\\nfeed cannot be stored in settings.ini, not saved"),
            1u);
  EXPECT_EQ(messages.size(), 10u);
}

TEST(SettingsTest, OversizedFileIsNeitherReadNorRewritten) {
  LogCapture log;
  TempDir dir;
  std::string original = "[Orvane]\nAppURL=http://big.example\n" + std::string(65 << 20, '#');
  std::string path = dir.write("settings.ini", original);
  Settings settings(path);
  settings.registerDefaults({{"AppURL", std::string("http://default.example")}});
  EXPECT_EQ(settings.stringForKey("AppURL"), "http://default.example");
  settings.setString("AppURL", "http://new.example");
  EXPECT_EQ(TempDir::Read(path).size(), original.size());
  EXPECT_EQ(
      log.messages(),
      std::vector<std::string>{"settings: settings.ini is too large to rewrite, AppURL not saved"});
}

TEST(SettingsTest, EditOfTextKeepsEveryOtherLine) {
  EXPECT_EQ(EditSettingsText("", "A", "1"), "[Orvane]\nA=1\n");
  EXPECT_EQ(EditSettingsText("\n", "A", "1"), "\n[Orvane]\nA=1\n");
  EXPECT_EQ(EditSettingsText("[Orvane]", "A", "1"), "[Orvane]\nA=1\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\n# end\n", "A", "1"), "[Orvane]\nA=1\n# end\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=1\nA=2\n", "A", "3"), "[Orvane]\nA=1\nA=3\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=1\nA=2\n", "A", std::nullopt), "[Orvane]\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=1\n", "B", std::nullopt), "[Orvane]\nA=1\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=bad\\q\n", "A", "ok"), "[Orvane]\nA=bad\\q\nA=ok\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=1", "A", " x"), "[Orvane]\nA=\\sx");
  EXPECT_EQ(EditSettingsText("[Orvane]\r\nA=1\r\n", "A", "2"), "[Orvane]\r\nA=2\r\n");
  EXPECT_EQ(EditSettingsText("[Orvane]\r\nA=1\r", "A", "2"), "[Orvane]\r\nA=2");
  // A "\r" that ends the file stays part of its line.
  EXPECT_EQ(EditSettingsText("[Orvane]\nA=1\r", "B", "2"), "[Orvane]\nA=1\r\r\nB=2\n");
  EXPECT_EQ(ParseSettingsText("[Orvane]\nA=1\r").values.at("A"), "1\r");
  EXPECT_EQ(EditSettingsText("[Orvane]\n", "A=", "1"), std::nullopt);
}

TEST(SettingsTest, ParseReportsBadLinesByNumber) {
  ParsedSettings parsed = ParseSettingsText("junk\n[Orvane]\r\nA = one two \r\n\x01\nB=\\s2\n"
                                            "[Other]\nA=3\n[Orvane]\nC=");
  EXPECT_EQ(parsed.values,
            (std::map<std::string, std::string>{{"A", "one two "}, {"B", " 2"}, {"C", ""}}));
  EXPECT_EQ(parsed.bad_lines, (std::vector<size_t>{1, 4}));
}

TEST(SettingsTest, TrailingSlashesAreAllRemoved) {
  EXPECT_EQ(StripTrailingSlashes("http://a.example//"), "http://a.example");
  EXPECT_EQ(StripTrailingSlashes("http://a.example///"), "http://a.example");
  EXPECT_EQ(StripTrailingSlashes("http://a.example"), "http://a.example");
  EXPECT_EQ(StripTrailingSlashes("///"), "");
}

} // namespace
} // namespace orvane

namespace orvane {
namespace {

class StandardSettingsTest : public ::testing::Test {
protected:
  void SetUp() override { RegisterDefaultSettings(); }
  void TearDown() override {
    Settings::standard().remove("AppURL");
    Settings::standard().remove("ProjectDir");
  }
};

TEST_F(StandardSettingsTest, DefaultsAreRegistered) {
  Settings& s = Settings::standard();
  EXPECT_EQ(s.stringForKey("AppURL"), "http://127.0.0.1:8000");
  EXPECT_EQ(s.stringForKey("ProjectDir"), std::string(kBundledSiteFolder));
  for (const char* key :
       {"NSAutomaticSpellingCorrectionEnabled", "NSAutomaticTextReplacementEnabled",
        "NSAutomaticQuoteSubstitutionEnabled", "NSAutomaticDashSubstitutionEnabled",
        "NSAutomaticPeriodSubstitutionEnabled"})
    EXPECT_FALSE(s.boolForKey(key)) << key;
  EXPECT_EQ(s.filePath(), std::string(g_getenv("XDG_CONFIG_HOME")) + "/orvane/settings.ini");
}

TEST_F(StandardSettingsTest, EmptyAppUrlBehavesAsUnset) {
  Settings::standard().setString("AppURL", "");
  EXPECT_EQ(SiteAddress(), "http://127.0.0.1:8000");
}

TEST_F(StandardSettingsTest, SiteAddressLosesEveryTrailingSlash) {
  Settings::standard().setString("AppURL", "https://papers.example//");
  EXPECT_EQ(SiteAddress(), "https://papers.example");
}

TEST_F(StandardSettingsTest, EmptyProjectDirUsesTheBundledSite) {
  Settings::standard().setString("ProjectDir", "");
  EXPECT_EQ(ProjectDirectory(), std::string(kBundledSiteFolder));
  Settings::standard().setString("ProjectDir", "/srv/site");
  EXPECT_EQ(ProjectDirectory(), "/srv/site");
}

} // namespace
} // namespace orvane
