#include "base/Settings.h"

#include "base/BuildInfo.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

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
