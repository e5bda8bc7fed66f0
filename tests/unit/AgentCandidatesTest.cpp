// Where the agent's executable is looked for, and what counts as one.
#include "agent/ClaudeDiscovery.h"

#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;

TEST(AgentCandidatesTest, SixPlacesInOrder) {
  EXPECT_THAT(StandardClaudeCandidates("/home/ada"),
              ElementsAre("/home/ada/.local/bin/claude", "/home/ada/.claude/local/claude",
                          "/opt/homebrew/bin/claude", "/usr/local/bin/claude",
                          "/home/ada/.npm-global/bin/claude", "/home/ada/.nvm/current/bin/claude"));
  EXPECT_EQ(StandardClaudeCandidates("/home/ada/")[0], "/home/ada/.local/bin/claude");
}

TEST(AgentCandidatesTest, ExecutableFileTest) {
  TempDir dir;
  std::string runnable = dir.write("runnable", "#!/bin/sh\n");
  std::string plain = dir.write("plain", "#!/bin/sh\n");
  chmod(runnable.c_str(), 0755);
  chmod(plain.c_str(), 0644);
  g_mkdir(dir.file("folder").c_str(), 0755);
  symlink(runnable.c_str(), dir.file("link-to-runnable").c_str());
  symlink(plain.c_str(), dir.file("link-to-plain").c_str());
  symlink(dir.file("nowhere").c_str(), dir.file("dangling").c_str());

  EXPECT_TRUE(IsExecutableFile(runnable));
  EXPECT_TRUE(IsExecutableFile(dir.file("link-to-runnable")));
  EXPECT_FALSE(IsExecutableFile(plain));
  EXPECT_FALSE(IsExecutableFile(dir.file("link-to-plain")));
  EXPECT_FALSE(IsExecutableFile(dir.file("folder")));
  EXPECT_FALSE(IsExecutableFile(dir.file("dangling")));
  EXPECT_FALSE(IsExecutableFile(dir.file("missing")));
  EXPECT_FALSE(IsExecutableFile(""));
  EXPECT_FALSE(IsExecutableFile("claude")); // a bare name, as an alias prints
}

TEST(AgentCandidatesTest, LoginShellComesFromTheEnvironment) {
  const char* saved = g_getenv("SHELL");
  std::string kept = saved ? saved : "";
  g_setenv("SHELL", "/usr/bin/fish", TRUE);
  EXPECT_EQ(LoginShell(), "/usr/bin/fish");
  g_setenv("SHELL", "", TRUE);
  EXPECT_EQ(LoginShell(), "/bin/sh");
  g_unsetenv("SHELL");
  EXPECT_EQ(LoginShell(), "/bin/sh");
  if (saved)
    g_setenv("SHELL", kept.c_str(), TRUE);
}

} // namespace
} // namespace orvane
