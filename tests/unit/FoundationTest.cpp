// Small pieces the rest builds on: geometry text, the virtual clock, bus
// addresses, capture arguments and account names.
#include "capture/CaptureModes.h"
#include "desktop/Geometry.h"
#include "desktop/MessageBus.h"
#include "desktop/Scheduler.h"
#include "library/PdfStore.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(GeometryTest, TextFormsUseShortestNumbers) {
  EXPECT_EQ(RectText({0, 0, 1440, 900}), "{{0, 0}, {1440, 900}}");
  EXPECT_EQ(RectText({-1920, 72.5, 0.25, 1e6}), "{{-1920, 72.5}, {0.25, 1000000}}");
  EXPECT_EQ(PointText({720, 450.5}), "{720, 450.5}");
}

TEST(GeometryTest, ContainsIncludesMinimumEdgesOnly) {
  Rect r{0, 0, 10, 10};
  EXPECT_TRUE(r.contains({0, 0}));
  EXPECT_FALSE(r.contains({10, 5}));
  EXPECT_FALSE(r.contains({5, 10}));
}

TEST(VirtualSchedulerTest, TasksRunInDueOrderOnlyWhenTimeAdvances) {
  VirtualScheduler scheduler;
  std::vector<std::string> ran;
  scheduler.after(2.0, [&] { ran.push_back("b"); });
  scheduler.after(0.5, [&] { ran.push_back("a"); });
  scheduler.after(2.0, [&] { ran.push_back("c"); });
  scheduler.advance(0.4);
  EXPECT_THAT(ran, IsEmpty());
  scheduler.advance(1.6);
  EXPECT_THAT(ran, ElementsAre("a", "b", "c"));
  EXPECT_DOUBLE_EQ(scheduler.now(), 2.0);
}

TEST(VirtualSchedulerTest, CancelledTaskNeverRunsAndTasksMayScheduleMore) {
  VirtualScheduler scheduler;
  std::vector<double> ran;
  auto id = scheduler.after(1.0, [&] { ran.push_back(-1); });
  scheduler.cancel(id);
  scheduler.after(1.0, [&] {
    ran.push_back(scheduler.now());
    scheduler.after(1.5, [&] { ran.push_back(scheduler.now()); });
  });
  scheduler.runAll();
  EXPECT_THAT(ran, ElementsAre(1.0, 2.5));
  EXPECT_EQ(scheduler.pending(), 0u);
}

TEST(MessageBusTest, NotificationNameMapsToInterfaceMemberAndPath) {
  BusAddress address = BusAddressFor("com.tarnwick.orvane.quote");
  EXPECT_EQ(address.interface, "com.tarnwick.orvane");
  EXPECT_EQ(address.member, "quote");
  EXPECT_EQ(address.path, "/com/tarnwick/orvane");
  BusAddress sibling = BusAddressFor("nl.tarnwick.pendrel.ask");
  EXPECT_EQ(sibling.interface, "nl.tarnwick.pendrel");
  EXPECT_EQ(sibling.path, "/nl/tarnwick/pendrel");
}

TEST(CaptureModesTest, OnlyTheFirstArgumentChoosesACaptureMode) {
  char program[] = "orvane";
  char quote[] = "--capture-quote";
  char selection[] = "--capture-selection";
  char file[] = "paper.pdf";
  char* quote_args[] = {program, quote, nullptr};
  char* selection_args[] = {program, selection, nullptr};
  char* later_args[] = {program, file, quote, nullptr};
  char* plain[] = {program, nullptr};
  EXPECT_TRUE(IsCaptureArgument(2, quote_args));
  EXPECT_TRUE(IsCaptureArgument(2, selection_args));
  EXPECT_FALSE(IsCaptureArgument(3, later_args));
  EXPECT_FALSE(IsCaptureArgument(1, plain));
}

TEST(AccountTest, NamesAreLowerCasedAndReduced) {
  EXPECT_EQ(SanitisedAccount("Jane.Doe+Lab@X"), "jane.doelabx");
  EXPECT_EQ(SanitisedAccount("Ünïcode"), "ncode");
  EXPECT_EQ(SanitisedAccount(""), "default");
  EXPECT_EQ(SanitisedAccount("!!!"), "default");
  EXPECT_EQ(SanitisedAccount("a_b-c.9"), "a_b-c.9");
}

TEST(AccountTest, SameAccountTwiceLogsOnlyOnce) {
  LogCapture log;
  VirtualScheduler scheduler;
  PdfStore store(scheduler);
  EXPECT_EQ(store.account(), std::nullopt);
  store.setAccount("Demo");
  store.setAccount("demo");
  EXPECT_EQ(store.account(), "demo");
  EXPECT_THAT(log.messages(), ElementsAre("pdfs: folder " + store.folder()));
  EXPECT_TRUE(g_file_test(store.folder().c_str(), G_FILE_TEST_IS_DIR));
  EXPECT_EQ(store.folder(), std::string(g_getenv("HOME")) + "/Documents/Orvane/demo");
}

} // namespace
} // namespace orvane
