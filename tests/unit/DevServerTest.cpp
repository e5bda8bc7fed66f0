#include "web/DevServer.h"

#include "support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A server answering every request with one status.
TestHttpServer::Handler Answering(int status) {
  return [status](const HttpRequest&, HttpReply& reply) {
    reply.status = status;
    reply.body = "[]";
  };
}

std::vector<std::string> Paths(const TestHttpServer& server) {
  std::vector<std::string> paths;
  for (const HttpRequest& request : server.requests())
    paths.push_back(request.path);
  return paths;
}

// Real probes against a real loopback server; the shell and the sleeps are
// recorded instead of run.
struct Recorder {
  std::vector<std::string> commands;
  std::vector<double> sleeps;
  DevServerActions actions() {
    DevServerActions a;
    a.runShell = [this](const std::string& c) { commands.push_back(c); };
    a.sleep = [this](double s) { sleeps.push_back(s); };
    return a;
  }
};

TEST(DevServerTest, RemoteSiteMakesNoRequest) {
  TestHttpServer server(Answering(200), "127.0.0.2");
  Recorder recorder;
  EXPECT_EQ(EnsureServer(server.url(""), "/srv/site", recorder.actions()), ServerOutcome::Remote);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_THAT(recorder.commands, IsEmpty());
  EXPECT_THAT(recorder.sleeps, IsEmpty());
}

TEST(DevServerTest, ServerAnswering200CostsOneProbe) {
  TestHttpServer server(Answering(200));
  Recorder recorder;
  EXPECT_EQ(EnsureServer(server.url(""), "/srv/site", recorder.actions()),
            ServerOutcome::Answering);
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_THAT(Paths(server), ElementsAre("/api/papers"));
  EXPECT_THAT(recorder.commands, IsEmpty());
}

TEST(DevServerTest, NotFoundCountsAsDownAndAllAttemptsAreMade) {
  TestHttpServer server(Answering(404));
  Recorder recorder;
  EXPECT_EQ(EnsureServer(server.url(""), "/srv/my site", recorder.actions()),
            ServerOutcome::NoAnswer);
  EXPECT_THAT(recorder.commands,
              ElementsAre("cd '/srv/my site' && nohup .venv/bin/uvicorn main:app --port 8000 > "
                          "/tmp/shelfkeep.log 2>&1 &"));
  EXPECT_EQ(recorder.sleeps, std::vector<double>(20, 0.25));
  EXPECT_EQ(server.requestCount(), 21u);
}

TEST(DevServerTest, ProjectFolderIsQuotedForTheShell) {
  const std::string tail = " && nohup .venv/bin/uvicorn main:app --port 8000 > "
                           "/tmp/shelfkeep.log 2>&1 &";
  EXPECT_EQ(ServerStartCommand("/srv/site"), "cd '/srv/site'" + tail);
  EXPECT_EQ(ServerStartCommand("/srv/my site"), "cd '/srv/my site'" + tail);
  EXPECT_EQ(ServerStartCommand("/srv/it's; touch pwned"), "cd '/srv/it'\\''s; touch pwned'" + tail);
}

TEST(DevServerTest, WaitingStopsAtTheFirstSuccessfulProbe) {
  int probes = 0;
  Recorder recorder;
  DevServerActions actions = recorder.actions();
  actions.probe = [&](const std::string&) { return ++probes == 4; };
  EXPECT_EQ(EnsureServer("http://localhost:8000", "/srv/site", actions), ServerOutcome::Started);
  EXPECT_EQ(probes, 4);
  EXPECT_EQ(recorder.sleeps.size(), 3u);
}

TEST(DevServerTest, ProbeOfANonAnsweringServerIsFalse) {
  SilentServer silent;
  EXPECT_FALSE(ServerIsUp(silent.address()));
}

TEST(DevServerTest, OnlyTheTwoLocalHostsCountAsLocal) {
  EXPECT_TRUE(IsLocalSite("http://127.0.0.1:8000"));
  EXPECT_TRUE(IsLocalSite("http://localhost"));
  EXPECT_FALSE(IsLocalSite("http://127.0.0.2:8000"));
  EXPECT_FALSE(IsLocalSite("https://papers.example"));
  EXPECT_FALSE(IsLocalSite("garbage"));
}

} // namespace
} // namespace orvane
