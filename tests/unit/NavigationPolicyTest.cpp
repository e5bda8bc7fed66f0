#include "web/NavigationPolicy.h"
#include "web/WebViewFactory.h"

#include "base/BuildInfo.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

constexpr char kSite[] = "https://papers.example";

TEST(NavigationPolicyTest, ClickedLinkToAnotherHostGoesToTheBrowser) {
  EXPECT_EQ(DecideNavigation("https://arxiv.example/abs/1", true, kSite),
            NavigationDecision::OpenInBrowser);
}

TEST(NavigationPolicyTest, ScriptDrivenChangeToAnotherHostStaysInside) {
  EXPECT_EQ(DecideNavigation("https://arxiv.example/abs/1", false, kSite),
            NavigationDecision::Allow);
}

TEST(NavigationPolicyTest, LocalhostOnAnyPortStaysInsideEvenForARemoteSite) {
  EXPECT_EQ(DecideNavigation("http://localhost:5173/x", true, kSite), NavigationDecision::Allow);
  EXPECT_EQ(DecideNavigation("http://127.0.0.1:9/", true, kSite), NavigationDecision::Allow);
}

TEST(NavigationPolicyTest, SiteHostMatchesWhateverThePortAndScheme) {
  EXPECT_EQ(DecideNavigation("http://papers.example:8080/a", true, kSite),
            NavigationDecision::Allow);
  EXPECT_TRUE(IsOnSite("https://papers.example/", kSite));
}

TEST(NavigationPolicyTest, HostComparisonIsExact) {
  EXPECT_FALSE(IsOnSite("https://www.papers.example/", kSite));
  EXPECT_FALSE(IsOnSite("http://127.0.0.2/", "http://127.0.0.1:8000"));
}

TEST(NavigationPolicyTest, AddressesWithoutHostAreOnTheSite) {
  EXPECT_TRUE(IsOnSite("about:blank", kSite));
  EXPECT_TRUE(IsOnSite("data:text/html,hi", kSite));
  EXPECT_TRUE(IsOnSite("", kSite));
}

TEST(NavigationPolicyTest, UnparsableSiteAddressLeavesOnlyLocalAndHostless) {
  const char* broken = "not a url";
  EXPECT_EQ(HostOf(broken), "");
  EXPECT_TRUE(IsOnSite("http://localhost/", broken));
  EXPECT_TRUE(IsOnSite("about:blank", broken));
  EXPECT_FALSE(IsOnSite("https://papers.example/", broken));
}

TEST(CapabilitiesScriptTest, ExactTextWithoutAnAgent) {
  EXPECT_EQ(CapabilitiesScript(""),
            std::string("window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true, "
                        "claude: \"\", version: '1.0', build: '") +
                kBuildIdentifier + "'};");
}

TEST(CapabilitiesScriptTest, AgentPathIsAnEscapedStringLiteral) {
  std::string script = CapabilitiesScript("/home/a \"b\"\\c/claude");
  EXPECT_NE(script.find(R"(claude: "/home/a \"b\"\\c/claude", version: '1.0')"), std::string::npos)
      << script;
}

} // namespace
} // namespace orvane
