#include "app/RunningRelease.h"
#include "web/WebViewFactory.h"

#include "base/BuildInfo.h"
#include "support/TempDir.h"
#include "update/InstallManifest.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace orvane {
namespace {

std::string Prefix() {
  return std::string("window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true, "
                     "claude: \"\", version: '1.0', build: '") +
         kBuildIdentifier + "', release: ";
}

// The text of the release member, which the script ends with.
std::string ReleaseLiteral(const std::string& script) {
  const std::string prefix = Prefix();
  EXPECT_EQ(script.compare(0, prefix.size(), prefix), 0) << script;
  EXPECT_EQ(script.substr(script.size() - 2), "};") << script;
  return script.substr(prefix.size(), script.size() - prefix.size() - 2);
}

// The literal is exactly one string: it parses as JSON (whose strings are
// JavaScript strings), and holds nothing but printable ASCII without "<".
std::string ReadBackOneLiteral(const std::string& literal) {
  for (unsigned char c : literal) {
    EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "byte " << int(c) << " in " << literal;
    EXPECT_NE(c, '<') << literal;
  }
  EXPECT_EQ(literal.front(), '"');
  EXPECT_EQ(literal.back(), '"');
  nlohmann::json value = nlohmann::json::parse(literal, nullptr, false);
  EXPECT_TRUE(value.is_string()) << literal;
  return value.is_string() ? value.get<std::string>() : "";
}

TEST(CapabilitiesScriptTest, ExactTextFromTheBuildTree) {
  EXPECT_EQ(CapabilitiesScript("", std::nullopt), Prefix() + "null};");
}

TEST(CapabilitiesScriptTest, ExactTextWithARelease) {
  EXPECT_EQ(CapabilitiesScript("", "1.4.2"), Prefix() + "\"1.4.2\"};");
}

TEST(CapabilitiesScriptTest, AgentPathIsAnEscapedStringLiteral) {
  std::string script = CapabilitiesScript("/home/a \"b\"\\c/claude", "2.0");
  EXPECT_NE(script.find(R"(claude: "/home/a \"b\"\\c/claude", version: '1.0')"), std::string::npos)
      << script;
  EXPECT_EQ(script.substr(script.size() - 19), "', release: \"2.0\"};");
}

TEST(CapabilitiesScriptTest, AHostileReleaseStaysOneLiteral) {
  const std::string hostile[] = {
      "1.0\"}; window.pwned = 1; x = {a: \"",
      "1.0'; alert(1); '",
      "</script><script>alert(1)</script><!--",
      "1.0\\",
      "1.0\n2.0\r\t\x01\x1f\x7f",
      "1.0\u2028\u2029end",
      std::string("1.0\0tail", 8),
      "caf\u00e9 \U0001F600",
      std::string(100000, '"'),
  };
  for (const std::string& release : hostile) {
    std::string literal = ReleaseLiteral(CapabilitiesScript("", release));
    EXPECT_EQ(ReadBackOneLiteral(literal), release) << literal.substr(0, 200);
  }
  std::string separators = ReleaseLiteral(CapabilitiesScript("", "a\u2028b"));
  EXPECT_EQ(separators, "\"a\\u2028b\"");
  EXPECT_EQ(ReleaseLiteral(CapabilitiesScript("", "</script>")), "\"\\u003c/script>\"");
}

TEST(CapabilitiesScriptTest, InvalidUtf8ReadsAsReplacementCharacters) {
  const std::string invalid[] = {"1.0\xff", "\xc3", "\xed\xa0\x80", "\xf8\x88\x80\x80\x80",
                                 "ok\xe2\x80"};
  for (const std::string& release : invalid) {
    std::string literal = ReleaseLiteral(CapabilitiesScript("", release));
    std::string back = ReadBackOneLiteral(literal);
    EXPECT_NE(back.find("\xef\xbf\xbd"), std::string::npos) << literal;
  }
  EXPECT_EQ(ReadBackOneLiteral(ReleaseLiteral(CapabilitiesScript("", "1.0\xff"))),
            "1.0\xef\xbf\xbd");
  // The agent path goes through the same escaping.
  std::string script = CapabilitiesScript("/opt/\xff</script>", std::nullopt);
  EXPECT_NE(script.find("claude: \"/opt/\\ufffd\\u003c/script>\", version"), std::string::npos)
      << script;
}

// A signed-looking install folder whose MANIFEST names `version`.
void WriteManifest(const TempDir& folder, const std::string& version) {
  Manifest manifest{"com.tarnwick.orvane", version, "202601010000-abcdef0", {}};
  folder.write(kManifestPath, ManifestText(manifest));
}

TEST(RunningReleaseTest, TheVersionOfTheInstallFoldersManifest) {
  TempDir install;
  WriteManifest(install, "1.4.2-rc.1");
  EXPECT_EQ(ReleaseOfInstallFolder(install.path()), "1.4.2-rc.1");
}

TEST(RunningReleaseTest, AHostileVersionComesBackAsWritten) {
  TempDir install;
  const std::string version = "1.0\"}; alert(1)</script>\n\xff\\";
  WriteManifest(install, version);
  EXPECT_EQ(ReleaseOfInstallFolder(install.path()), version);
}

TEST(RunningReleaseTest, NothingFromTheBuildTreeOrWithoutAReadableManifest) {
  EXPECT_EQ(ReleaseOfInstallFolder(""), std::nullopt);
  TempDir empty;
  EXPECT_EQ(ReleaseOfInstallFolder(empty.path()), std::nullopt);
  EXPECT_EQ(ReleaseOfInstallFolder(empty.file("missing")), std::nullopt);

  TempDir garbage;
  garbage.write(kManifestPath, "this is not a manifest\n");
  EXPECT_EQ(ReleaseOfInstallFolder(garbage.path()), std::nullopt);

  TempDir binary;
  binary.write(kManifestPath, std::string("\0\xff\xfe version 1.0\n", 17));
  EXPECT_EQ(ReleaseOfInstallFolder(binary.path()), std::nullopt);

  TempDir folder_instead;
  folder_instead.write(std::string(kManifestPath) + "/inside", "x");
  EXPECT_EQ(ReleaseOfInstallFolder(folder_instead.path()), std::nullopt);
}

TEST(RunningReleaseTest, AManifestLinkedFromOutsideIsNotRead) {
  TempDir outside;
  WriteManifest(outside, "6.6.6");
  TempDir install;
  install.write("share/orvane/placeholder", "");
  ASSERT_EQ(symlink(outside.file(kManifestPath).c_str(), install.file(kManifestPath).c_str()), 0);
  EXPECT_EQ(ReleaseOfInstallFolder(install.path()), std::nullopt);
}

TEST(RunningReleaseTest, AHugeManifestIsRefusedUnread) {
  TempDir install;
  std::string text = ManifestText({"com.tarnwick.orvane", "1.0", "b", {}});
  text += std::string(kManifestSizeLimit, '#');
  install.write(kManifestPath, text);
  EXPECT_EQ(ReleaseOfInstallFolder(install.path()), std::nullopt);
}

} // namespace
} // namespace orvane
