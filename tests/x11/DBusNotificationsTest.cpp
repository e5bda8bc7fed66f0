// Notifications through a stand-in org.freedesktop.Notifications service on
// the private session bus.
#include "desktop/session/DBusNotifications.h"
#include "support/TempDir.h"
#include "support/TextLines.h"
#include "x11/X11TestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace orvane {
namespace {

using namespace std::chrono_literals;

class DBusNotificationsTest : public testing::Test {
protected:
  std::unique_ptr<Child> startService(const char* mode) {
    std::unique_ptr<Child> service =
        Child::Start({"/usr/bin/python3", SharedFixtureScript("notifications.py"), record(), mode});
    if (!service || service->readLine() != "ready")
      return nullptr;
    return service;
  }
  std::string record() const { return dir_.file("calls.jsonl"); }
  std::vector<nlohmann::json> calls() const {
    std::vector<nlohmann::json> result;
    for (const std::string& line : SplitLines(TempDir::Read(record())))
      result.push_back(nlohmann::json::parse(line));
    return result;
  }

  TempDir dir_;
};

TEST_F(DBusNotificationsTest, NotifyReachesTheServiceWithTheAgreedArguments) {
  std::unique_ptr<Child> service = startService("answer");
  ASSERT_TRUE(service);
  EXPECT_TRUE(
      DBusNotifications().notify("Orvane cannot read the selection", "Start your session on X11."));
  ASSERT_EQ(calls().size(), 1u);
  nlohmann::json expected = {{"method", "Notify"},
                             {"app_name", "Orvane"},
                             {"replaces_id", 0},
                             {"app_icon", ""},
                             {"summary", "Orvane cannot read the selection"},
                             {"body", "Start your session on X11."},
                             {"actions", nlohmann::json::array()},
                             {"hints", nlohmann::json::object()},
                             {"expire_timeout", -1}};
  EXPECT_EQ(calls()[0], expected);
}

TEST_F(DBusNotificationsTest, TextThatIsNotUtf8IsStillShown) {
  std::unique_ptr<Child> service = startService("answer");
  ASSERT_TRUE(service);
  EXPECT_TRUE(DBusNotifications().notify("bad \xff summary", std::string("nul\0body", 8)));
  ASSERT_EQ(calls().size(), 1u);
  EXPECT_EQ(calls()[0]["summary"], "bad \xef\xbf\xbd summary");
}

TEST_F(DBusNotificationsTest, NoServiceMeansFalse) {
  EXPECT_FALSE(DBusNotifications().notify("summary", "body"));
}

TEST_F(DBusNotificationsTest, AnErrorReplyMeansFalse) {
  std::unique_ptr<Child> service = startService("error");
  ASSERT_TRUE(service);
  EXPECT_FALSE(DBusNotifications().notify("summary", "body"));
  EXPECT_EQ(calls().size(), 1u);
}

TEST_F(DBusNotificationsTest, AServiceThatNeverAnswersMeansFalseAfterTheTimeout) {
  std::unique_ptr<Child> service = startService("silent");
  ASSERT_TRUE(service);
  EXPECT_FALSE(DBusNotifications(300ms).notify("summary", "body"));
  EXPECT_EQ(calls().size(), 1u);
}

} // namespace
} // namespace orvane
