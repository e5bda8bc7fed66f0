#include "web/NavigationPolicy.h"

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

TEST(NavigationPolicyTest, ClickedLinkOffTheSiteLeavesOnlyForWebAndMailAddresses) {
  EXPECT_EQ(DecideNavigation("http://arxiv.example/abs/1", true, kSite),
            NavigationDecision::OpenInBrowser);
  EXPECT_EQ(DecideNavigation("HTTPS://arxiv.example/", true, kSite),
            NavigationDecision::OpenInBrowser);
  for (const char* target :
       {"ftp://files.example/a.txt", "smb://server.example/share", "ssh://host.example/",
        "sftp://host.example/x", "orvane-helper://run.example/x", "vnc://desk.example/",
        "ms-settings://x.example/"}) {
    EXPECT_EQ(DecideNavigation(target, true, kSite), NavigationDecision::Drop) << target;
  }
}

TEST(NavigationPolicyTest, AddressesWithoutHostStayUnderTheHostRule) {
  // Host-less addresses are on the site, so they never leave the program.
  for (const char* target : {"file:///etc/passwd", "javascript:alert(1)", "data:text/html,x",
                             "mailto:someone@example.org", "about:blank"}) {
    EXPECT_EQ(DecideNavigation(target, true, kSite), NavigationDecision::Allow) << target;
  }
}

TEST(NavigationPolicyTest, PopUpLeavesOnlyWhenAskedForAndForWebAndMailAddresses) {
  EXPECT_EQ(DecidePopUp("https://papers.example/a", true), PopUpDecision::OpenInBrowser);
  EXPECT_EQ(DecidePopUp("http://elsewhere.example/", true), PopUpDecision::OpenInBrowser);
  EXPECT_EQ(DecidePopUp("mailto:someone@example.org", true), PopUpDecision::OpenInBrowser);
  EXPECT_EQ(DecidePopUp("https://papers.example/a", false), PopUpDecision::DropNoGesture);
  EXPECT_EQ(DecidePopUp("file:///etc/passwd", false), PopUpDecision::DropNoGesture);
  for (const char* target :
       {"file:///home/a/.ssh/id_rsa", "javascript:alert(1)", "data:text/html,x",
        "blob:https://papers.example/x", "ftp://files.example/", "about:blank",
        "x-scheme-handler://x", "apt:sl", "", "no scheme at all", "://", "ht tp://x"}) {
    EXPECT_EQ(DecidePopUp(target, true), PopUpDecision::DropScheme) << target;
  }
}

TEST(NavigationPolicyTest, SchemeFilterReadsOnlyTheScheme) {
  EXPECT_TRUE(MayLeaveTheProgram("mailto:a@example.org?subject=x"));
  EXPECT_TRUE(MayLeaveTheProgram("Http://x.example/"));
  EXPECT_FALSE(MayLeaveTheProgram("httpx://x.example/"));
  EXPECT_FALSE(MayLeaveTheProgram(" http://x.example/"));
  EXPECT_FALSE(MayLeaveTheProgram(std::string("http\0://x", 9)));
  EXPECT_FALSE(MayLeaveTheProgram("https" + std::string(10000, 's') + "://x"));
}

} // namespace
} // namespace orvane
