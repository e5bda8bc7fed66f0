// The real desktop seams against real services: session-bus signals
// between two connections, and GIO launching the applications registered
// for a scheme, a file type and folders.
#include "base/Settings.h"
#include "desktop/session/DBusMessageBus.h"
#include "desktop/session/GLibScheduler.h"
#include "desktop/session/GioWorkspace.h"

#include "support/TempDir.h"
#include "support/TextLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;

// Runs the default main context until the condition holds or time runs out.
bool SpinUntil(const std::function<bool()>& done, double seconds = 10) {
  gint64 deadline = g_get_monotonic_time() + gint64(seconds * 1e6);
  while (!done() && g_get_monotonic_time() < deadline)
    g_main_context_iteration(nullptr, FALSE), g_usleep(1000);
  return done();
}

TEST(DBusMessageBusTest, SignalPostedByOneProcessPartReachesASubscriber) {
  DBusMessageBus receiver;
  std::vector<std::string> received;
  ASSERT_TRUE(receiver.subscribe("com.tarnwick.orvane.spar",
                                 [&](const std::string& object) { received.push_back(object); }));
  ASSERT_TRUE(receiver.subscribe("com.tarnwick.orvane.tile", [&](const std::string& object) {
    received.push_back("tile " + object);
  }));

  // A second connection, as another process would have.
  GDBusConnection* sender = g_dbus_connection_new_for_address_sync(
      g_getenv("DBUS_SESSION_BUS_ADDRESS"),
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  ASSERT_NE(sender, nullptr);
  g_dbus_connection_emit_signal(sender, nullptr, "/com/tarnwick/orvane", "com.tarnwick.orvane",
                                "spar", g_variant_new("(s)", "cs/0101123"), nullptr);
  g_dbus_connection_emit_signal(sender, nullptr, "/com/tarnwick/orvane", "com.tarnwick.orvane",
                                "quote", g_variant_new("(s)", "not subscribed"), nullptr);
  g_dbus_connection_emit_signal(sender, nullptr, "/com/tarnwick/orvane", "com.tarnwick.orvane",
                                "tile", nullptr, nullptr);
  g_dbus_connection_flush_sync(sender, nullptr, nullptr);
  EXPECT_TRUE(SpinUntil([&] { return received.size() >= 2; }));
  EXPECT_THAT(received, ElementsAre("cs/0101123", "tile "));
  g_object_unref(sender);
}

TEST(DBusMessageBusTest, PostedNotificationCarriesItsObject) {
  DBusMessageBus bus;
  std::vector<std::string> received;
  bus.subscribe("nl.tarnwick.pendrel.ask", [&](const std::string& o) { received.push_back(o); });
  ASSERT_TRUE(bus.post("nl.tarnwick.pendrel.ask", R"({"quote":"x"})"));
  EXPECT_TRUE(SpinUntil([&] { return !received.empty(); }));
  EXPECT_THAT(received, ElementsAre(R"({"quote":"x"})"));
}

TEST(GLibSchedulerTest, TasksRunOnTheMainLoopAfterTheirDelay) {
  GLibScheduler scheduler;
  std::vector<int> ran;
  double start = scheduler.now();
  scheduler.after(0.05, [&] { ran.push_back(2); });
  scheduler.after(0.01, [&] { ran.push_back(1); });
  auto cancelled = scheduler.after(0.02, [&] { ran.push_back(-1); });
  scheduler.cancel(cancelled);
  EXPECT_TRUE(SpinUntil([&] { return ran.size() == 2; }));
  EXPECT_THAT(ran, ElementsAre(1, 2));
  EXPECT_GE(scheduler.now() - start, 0.05);
}

// Desktop files whose command records how it was called.
class WorkspaceTest : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    std::string data = g_getenv("XDG_DATA_HOME");
    std::string config = g_getenv("XDG_CONFIG_HOME");
    Register(data, "test-browser", "x-scheme-handler/http;x-scheme-handler/https;", "%u");
    Register(data, "test-viewer", "application/pdf;", "%f");
    Register(data, "test-other-viewer", "application/pdf;", "%f");
    Register(data, "test-files", "inode/directory;", "%u");
    TempDir::WriteFile(config + "/mimeapps.list", "[Default Applications]\n"
                                                  "x-scheme-handler/http=test-browser.desktop\n"
                                                  "x-scheme-handler/https=test-browser.desktop\n"
                                                  "application/pdf=test-viewer.desktop\n"
                                                  "inode/directory=test-files.desktop\n");
    RegisterDefaultSettings();
  }

  static void Register(const std::string& data, const std::string& name, const std::string& types,
                       const std::string& field) {
    std::string record = data + "/" + name + ".calls";
    std::string script = data + "/" + name + ".sh";
    TempDir::WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + record + "'\n");
    g_chmod(script.c_str(), 0755);
    TempDir::WriteFile(data + "/applications/" + name + ".desktop",
                       "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + script +
                           " " + field + "\nMimeType=" + types + "\n");
  }

  static std::vector<std::string> Calls(const std::string& name) {
    return SplitLines(
        TempDir::Read(std::string(g_getenv("XDG_DATA_HOME")) + "/" + name + ".calls"));
  }

  GioWorkspace workspace;
};

TEST_F(WorkspaceTest, BrowserIsTheDefaultHandlerForTheAddress) {
  EXPECT_EQ(workspace.openInBrowser("https://arxiv.example/abs/2401.01234"), std::nullopt);
  EXPECT_TRUE(SpinUntil([] { return !Calls("test-browser").empty(); }));
  EXPECT_THAT(Calls("test-browser"), ElementsAre("https://arxiv.example/abs/2401.01234"));
}

TEST_F(WorkspaceTest, ViewerIsTheDefaultForPdfUnlessTheSettingNamesOne) {
  TempDir files;
  std::string pdf = files.write("a b.pdf", "%PDF-1.4\n%%EOF\n");
  std::optional<ErrorText> outcome;
  workspace.openInViewer(pdf, [&](ErrorText e) { outcome = e; });
  ASSERT_TRUE(SpinUntil([&] { return outcome.has_value(); }));
  EXPECT_EQ(*outcome, std::nullopt);
  EXPECT_TRUE(SpinUntil([] { return !Calls("test-viewer").empty(); }));
  EXPECT_THAT(Calls("test-viewer"), ElementsAre(pdf));

  Settings::standard().setString("PdfViewer", "test-other-viewer.desktop");
  workspace.openInViewer(pdf, nullptr);
  EXPECT_TRUE(SpinUntil([] { return !Calls("test-other-viewer").empty(); }));
  EXPECT_THAT(Calls("test-other-viewer"), ElementsAre(pdf));
  Settings::standard().remove("PdfViewer");
}

TEST_F(WorkspaceTest, RevealWithoutAFileManagerOnTheBusOpensTheFolder) {
  TempDir files;
  std::string pdf = files.write("paper.pdf", "%PDF-1.4\n");
  workspace.reveal(pdf);
  EXPECT_TRUE(SpinUntil([] { return !Calls("test-files").empty(); }));
  // GIO hands a local folder to the application as its path.
  EXPECT_THAT(Calls("test-files"), ElementsAre(files.path()));
}

} // namespace
} // namespace orvane
