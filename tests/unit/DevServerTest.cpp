#include "web/DevServer.h"

#include "support/RawServer.h"
#include "support/TestHttpServer.h"

#include <algorithm>
#include <cstring>
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

// A raw server that sends `answer` to every request, then hangs up.
RawServer::Script Sending(std::string answer) {
  return [answer](RawServer&, int client, const std::string&) { RawServer::Send(client, answer); };
}

// The site address of a raw server (its url without the probe path).
std::string SiteOf(const RawServer& server) {
  return server.url("");
}

TEST(DevServerProbeTest, TwoHundredWithAWholeBodyIsUp) {
  RawServer server(Sending("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n[]"));
  EXPECT_TRUE(ServerIsUp(SiteOf(server)));
  EXPECT_EQ(server.connections(), 1u);
}

TEST(DevServerProbeTest, AskedForTheProbePathOnceWithItsHost) {
  std::string received;
  RawServer server([&](RawServer&, int client, const std::string& request) {
    received = request;
    RawServer::Send(client, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  });
  EXPECT_TRUE(ServerIsUp(SiteOf(server)));
  std::string host = SiteOf(server).substr(strlen("http://"));
  EXPECT_EQ(received.rfind("GET /api/papers HTTP/1.1\r\n", 0), 0u) << received;
  EXPECT_NE(received.find("\r\nHost: " + host + "\r\n"), std::string::npos) << received;
}

TEST(DevServerProbeTest, BodiesOfAnyFramingAndSizeAreReadToTheirEnd) {
  std::string big(3 * 1024 * 1024, 'x');
  for (const std::string& answer :
       {"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(big.size()) + "\r\n\r\n" + big,
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "2;ext=1\r\n[]\r\n0\r\nTrailer: x\r\n\r\n"),
        std::string("HTTP/1.0 200 OK\r\n\r\nno length: the body ends with the connection"),
        std::string("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"),
        std::string("HTTP/1.1 200\nContent-Length: 2\n\n[]")}) {
    RawServer server(Sending(answer));
    EXPECT_TRUE(ServerIsUp(SiteOf(server))) << answer.substr(0, 80);
  }
}

TEST(DevServerProbeTest, AnyOtherStatusIsDown) {
  for (const char* answer : {"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n",
                             "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found",
                             "HTTP/1.1 204 No Content\r\n\r\n", "HTTP/1.1 201 Created\r\n\r\n"}) {
    RawServer server(Sending(answer));
    EXPECT_FALSE(ServerIsUp(SiteOf(server))) << answer;
  }
}

TEST(DevServerProbeTest, GarbageAndHeadlessAnswersAreDown) {
  for (const std::string& answer : std::vector<std::string>{
           "", // closes at once
           "garbage\r\n\r\n",
           "HTTP/1.1 2000 OK\r\n\r\n",
           "HTTP/1.1 OK\r\n\r\n",
           std::string("\0\xff\xfe\r\n\r\n", 6),
           "HTTP/1.1 200 OK\r\nContent-Length: 0", // the head never ends
           "HTTP/1.1 100 Continue\r\n\r\n",        // no final answer
           "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 100\r\n\r\ncut",
       }) {
    RawServer server(Sending(answer));
    EXPECT_FALSE(ServerIsUp(SiteOf(server))) << answer;
  }
}

TEST(DevServerProbeTest, ATwoHundredWhoseBodyFailsStillCountsAsUp) {
  // The status has arrived; a body that is cut or malformed afterwards does
  // not take it back (an interrupted transfer still has its response).
  for (const std::string& answer : std::vector<std::string>{
           "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly part",
           "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n[]",
           "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
           "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n",
           "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
           "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n[]", // no last chunk
       }) {
    RawServer server(Sending(answer));
    EXPECT_TRUE(ServerIsUp(SiteOf(server))) << answer;
  }
}

TEST(DevServerProbeTest, ATwoHundredThatFallsSilentCountsAsUpAfterTheRequestTimeOut) {
  RawServer server([](RawServer& self, int client, const std::string&) {
    if (RawServer::Send(client, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n[]"))
      self.holdOpen();
  });
  EXPECT_TRUE(ServerIsUp(SiteOf(server)));
}

TEST(DevServerProbeTest, EndlessHeadsAreRefusedWithoutHoldingThem) {
  // One endless header line, and endless header lines: both are cut off by
  // the caps long before the wait runs out or memory grows.
  for (std::string unit : {std::string(4096, 'a'), std::string("X-Filler: 1\r\n")}) {
    RawServer server([unit](RawServer& self, int client, const std::string&) {
      if (!RawServer::Send(client, "HTTP/1.1 200 OK\r\n"))
        return;
      while (!self.stopping() && RawServer::Send(client, unit)) {
      }
    });
    EXPECT_FALSE(ServerIsUp(SiteOf(server))) << unit.substr(0, 12);
  }
}

TEST(DevServerProbeTest, AnAnswerThatNeverEndsIsDownAfterTheWait) {
  // A 200 whose body keeps coming: the whole answer never arrives.
  RawServer server([](RawServer& self, int client, const std::string&) {
    if (!RawServer::Send(client, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"))
      return;
    while (!self.stopping() && RawServer::Send(client, "1\r\nx\r\n"))
      self.waitFor([] { return false; }, 0.01);
  });
  EXPECT_FALSE(ServerIsUp(SiteOf(server)));
}

TEST(DevServerProbeTest, ABodyThatNeverEndsAtFullSpeedIsDownAfterTheWait) {
  // Megabytes a second and no end, without a length and with one far too
  // large to arrive: the probe reads (and drops) it until the wait is over,
  // and the answer never counts as whole.
  for (std::string head :
       {std::string("HTTP/1.1 200 OK\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nContent-Length: 1000000000000\r\n\r\n")}) {
    RawServer server([head](RawServer& self, int client, const std::string&) {
      if (!RawServer::Send(client, head))
        return;
      const std::string piece(64 * 1024, 'x');
      while (!self.stopping() && RawServer::Send(client, piece)) {
      }
    });
    EXPECT_FALSE(ServerIsUp(SiteOf(server))) << head;
  }
}

TEST(DevServerProbeTest, ASilentConnectionIsDownAfterTheWait) {
  RawServer server([](RawServer& self, int, const std::string&) { self.holdOpen(); });
  EXPECT_FALSE(ServerIsUp(SiteOf(server)));
  EXPECT_EQ(server.connections(), 1u);
}

TEST(DevServerProbeTest, NothingListeningIsDown) {
  int port = 0;
  {
    RawServer closed(Sending(""));
    port = std::stoi(closed.url("").substr(strlen("http://127.0.0.1:")));
  }
  EXPECT_FALSE(ServerIsUp("http://127.0.0.1:" + std::to_string(port)));
}

TEST(DevServerProbeTest, RedirectsAreFollowedToTheirAnswer) {
  RawServer server([](RawServer&, int client, const std::string& request) {
    if (request.rfind("GET /api/papers ", 0) == 0)
      RawServer::Send(client, "HTTP/1.1 307 Temporary Redirect\r\nLocation: /api/papers/\r\n"
                              "Content-Length: 0\r\n\r\n");
    else if (request.rfind("GET /api/papers/ ", 0) == 0)
      RawServer::Send(client, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n[]");
  });
  EXPECT_TRUE(ServerIsUp(SiteOf(server)));
  EXPECT_EQ(server.connections(), 2u);
}

TEST(DevServerProbeTest, ARedirectLoopIsDown) {
  RawServer server(
      Sending("HTTP/1.1 302 Found\r\nLocation: /api/papers\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_FALSE(ServerIsUp(SiteOf(server)));
  EXPECT_LE(server.connections(), 21u);
}

TEST(DevServerProbeTest, RedirectsAwayFromThisMachineAreNotFollowed) {
  RawServer server(Sending("HTTP/1.1 302 Found\r\nLocation: http://papers.example/api/papers\r\n"
                           "Content-Length: 0\r\n\r\n"));
  EXPECT_FALSE(ServerIsUp(SiteOf(server)));
  EXPECT_EQ(server.connections(), 1u);
}

TEST(DevServerProbeTest, NothingInTheSiteAddressAddsALineToTheRequest) {
  std::vector<std::string> received;
  RawServer server([&](RawServer&, int client, const std::string& request) {
    received.push_back(request);
    RawServer::Send(client, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  });
  // Line breaks, escaped or not, and spaces in the address go out escaped,
  // or not at all: every request that arrives is the one GET line and its
  // three headers.
  for (const char* tail : {"/x\r\nX-Evil: 1", "/x%0d%0aX-Evil: 1", "/a b", "/x\nX-Evil: 1",
                           "/x\tX-Evil:1", "/?q=\r\nX-Evil:1"})
    ServerIsUp(SiteOf(server) + tail);
  EXPECT_FALSE(received.empty());
  for (const std::string& request : received) {
    EXPECT_EQ(request.find("\nX-Evil"), std::string::npos) << request;
    std::string line = request.substr(0, request.find("\r\n"));
    EXPECT_EQ(std::count(line.begin(), line.end(), ' '), 2) << line;
    EXPECT_EQ(std::count(request.begin(), request.end(), '\n'), 5) << request;
  }
}

TEST(DevServerProbeTest, UnusableSiteAddressesAreDown) {
  for (const char* site : {"", "garbage", "ftp://127.0.0.1:1", "http://", "http://[::1"})
    EXPECT_FALSE(ServerIsUp(site)) << site;
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
