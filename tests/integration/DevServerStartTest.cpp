// The development server's start command, run for real by /bin/sh in a
// project folder whose name is hostile: the shell must see the folder as
// one argument, so the server starts inside it and nothing else runs.
#include "web/DevServer.h"

#include "support/MainLoop.h"
#include "support/TempDir.h"

#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <string>

namespace orvane {
namespace {

constexpr char kServerLog[] = "/tmp/shelfkeep.log";

// A project folder holding a stand-in for the server that records the folder
// it was started in.
std::string MakeProject(const TempDir& root, const std::string& name) {
  std::string folder = root.file(name);
  std::string record = root.file("started-in");
  std::string script =
      "#!/bin/sh\npwd > '" + record + ".tmp' && mv '" + record + ".tmp' '" + record + "'\n";
  std::string uvicorn = folder + "/.venv/bin/uvicorn";
  TempDir::WriteFile(uvicorn, script);
  g_chmod(uvicorn.c_str(), 0755);
  return folder;
}

// The command as built, its output sent into the test's folder instead of
// the shared server log.
std::string CommandWithLogIn(const TempDir& root, const std::string& folder) {
  std::string command = ServerStartCommand(folder);
  size_t at = command.find(kServerLog);
  if (at == std::string::npos)
    return "";
  command.replace(at, sizeof kServerLog - 1, root.file("server.log"));
  return command;
}

class DevServerStartTest : public ::testing::TestWithParam<std::string> {};

TEST_P(DevServerStartTest, ShellSeesTheFolderAsOneArgument) {
  TempDir root;
  std::string folder = MakeProject(root, GetParam());
  std::string command = CommandWithLogIn(root, folder);
  ASSERT_FALSE(command.empty());

  // The shell starts in the test's folder, where a stray "touch pwned" would
  // leave its file.
  const gchar* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  gint status = -1;
  ASSERT_TRUE(g_spawn_sync(root.path().c_str(), const_cast<gchar**>(argv), nullptr, G_SPAWN_DEFAULT,
                           nullptr, nullptr, nullptr, nullptr, &status, nullptr));

  std::string record = root.file("started-in");
  bool started = SpinUntil([&] { return g_file_test(record.c_str(), G_FILE_TEST_EXISTS); });
  EXPECT_FALSE(g_file_test(root.file("pwned").c_str(), G_FILE_TEST_EXISTS)) << command;
  EXPECT_FALSE(g_file_test((folder + "/pwned").c_str(), G_FILE_TEST_EXISTS)) << command;
  ASSERT_TRUE(started) << "the server was not started by: " << command;
  EXPECT_EQ(TempDir::Read(record), folder + "\n");
}

INSTANTIATE_TEST_SUITE_P(HostileFolderNames, DevServerStartTest,
                         ::testing::Values("plain", "my site", "it's; touch pwned",
                                           "it's; touch pwned; '", "$(touch pwned)",
                                           "`touch pwned`", "a\"b\\c & touch pwned #",
                                           "line\nbreak; touch pwned"));

} // namespace
} // namespace orvane
