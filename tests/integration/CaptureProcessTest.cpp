// Capture against real processes and the real session bus: the document a
// running process holds, the running instance by its bus name, and a
// capture start without a display.
#include "base/GObjectPtr.h"
#include "capture/CaptureModes.h"
#include "capture/FocusedDocument.h"
#include "capture/HandoffFolder.h"
#include "desktop/session/RunningInstance.h"

#include "support/LogCapture.h"
#include "support/PeerConnection.h"
#include "support/TempDir.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvane {
namespace {

// A child process this test starts and ends, by its pid.
class Child {
public:
  // Runs argv with `held_fd` (when >= 0) as the child's descriptor 3.
  Child(std::vector<std::string> arguments, int held_fd = -1) {
    std::vector<gchar*> argv;
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    gint source_fds[] = {held_fd};
    gint target_fds[] = {3};
    GErrorPtr error;
    started_ = g_spawn_async_with_pipes_and_fds(
        nullptr, argv.data(), nullptr, GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
        // A group of its own, so that a shell's own children end with it.
        [](gpointer) { setpgid(0, 0); }, nullptr, -1, -1, -1, held_fd >= 0 ? source_fds : nullptr,
        held_fd >= 0 ? target_fds : nullptr, held_fd >= 0 ? 1 : 0, &pid_, nullptr, nullptr, nullptr,
        error.out());
  }
  ~Child() {
    if (started_) {
      kill(-pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool started() const { return started_; }
  int pid() const { return pid_; }

private:
  GPid pid_ = 0;
  bool started_ = false;
};

TEST(FocusedDocumentProcessTest, PdfHeldOpenByARunningProcessIsItsDocument) {
  TempDir files;
  std::string paper = files.write("Held Open.pdf", "%PDF-1.4\n%%EOF\n");
  files.write("Other.pdf", "%PDF-1.4\n%%EOF\n");
  int fd = open(paper.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Child viewer({"sleep", "300"}, fd);
  close(fd);
  ASSERT_TRUE(viewer.started());
  DocumentSources sources;
  sources.recently_used_xbel = files.file("none.xbel");
  EXPECT_EQ(FocusedDocumentPath(viewer.pid(), "sleep", sources), paper);
}

TEST(FocusedDocumentProcessTest, PdfOnARunningProcessCommandLineIsItsDocument) {
  TempDir files;
  std::string first = files.write("First Paper.pdf", "%PDF-1.4\n%%EOF\n");
  std::string second = files.write("Second Paper.pdf", "%PDF-1.4\n%%EOF\n");
  GCharPtr uri(g_filename_to_uri(second.c_str(), nullptr, nullptr));
  // The shell keeps its own command line while it waits for sleep.
  Child viewer({"sh", "-c", "sleep 300; :", "viewer", first, uri.str()});
  ASSERT_TRUE(viewer.started());
  DocumentSources sources;
  sources.recently_used_xbel = files.file("none.xbel");
  EXPECT_EQ(FocusedDocumentPath(viewer.pid(), "Second Paper — Page 1", sources), second);
  EXPECT_EQ(FocusedDocumentPath(viewer.pid(), "First Paper.pdf", sources), first);
  EXPECT_EQ(FocusedDocumentPath(viewer.pid(), "viewer", sources), std::nullopt);
}

// A connection of its own that owns (or gives up) a bus name.
bool ClaimName(GDBusConnection* connection, const char* method) {
  GVariantPtr reply(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
      g_strcmp0(method, "RequestName") == 0 ? g_variant_new("(su)", "com.tarnwick.orvane", 4u)
                                            : g_variant_new("(s)", "com.tarnwick.orvane"),
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  guint32 answer = 0;
  if (reply)
    g_variant_get(reply.get(), "(u)", &answer);
  return answer == 1;
}

TEST(RunningInstanceTest, OwnerOfTheApplicationNameIsTheRunningInstance) {
  EXPECT_EQ(RunningInstancePid(), std::nullopt);
  auto connection = NewPeerConnection();
  ASSERT_TRUE(connection);
  ASSERT_TRUE(ClaimName(connection.get(), "RequestName"));
  EXPECT_EQ(RunningInstancePid(), int(getpid()));
  ASSERT_TRUE(ClaimName(connection.get(), "ReleaseName"));
  EXPECT_EQ(RunningInstancePid(), std::nullopt);
}

TEST(CaptureModeProcessTest, WithoutADisplayNothingIsCapturedAndTheReasonLogged) {
  ASSERT_EQ(g_getenv("DISPLAY"), nullptr);
  LogCapture log;
  std::string selection = HandoffFile("selection.txt");
  EXPECT_EQ(RunCaptureMode("--capture-selection", DesktopChoice{}), 0);
  EXPECT_FALSE(g_file_test(selection.c_str(), G_FILE_TEST_EXISTS));
  EXPECT_FALSE(g_file_test(HandoffFile("screen.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_THAT(log.messages(),
              ::testing::ElementsAre(
                  "capture: no display to capture from — --capture-selection did nothing"));
}

} // namespace
} // namespace orvane
