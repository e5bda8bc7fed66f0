// The transfer functions on their own, against real loopback servers.
#include "library/HttpTransfer.h"

#include "support/MainLoop.h"
#include "support/RawServer.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace orvane {
namespace {

TransferResult Upload(const UploadRequest& request) {
  std::optional<TransferResult> result;
  UploadFromFile(request, [&](TransferResult r) { result = std::move(r); });
  EXPECT_TRUE(SpinUntil([&] { return result.has_value(); }, 20));
  return result.value_or(TransferResult{});
}

TEST(HttpTransferTest, UploadFollowsARedirectThatKeepsTheMethod) {
  TestHttpServer server([](const HttpRequest& request, HttpReply& reply) {
    if (request.path == "/old") {
      reply.status = 307;
      reply.headers["Location"] = "/new?x=1";
    } else {
      reply.status = 201;
      reply.body = "stored";
    }
  });
  TempDir dir;
  UploadRequest request;
  request.url = server.url("/old");
  request.file = dir.write("a.pdf", "%PDF-1.4 the body");
  TransferResult result = Upload(request);
  EXPECT_EQ(result.error, std::nullopt);
  EXPECT_EQ(result.status, 201);
  EXPECT_EQ(result.body, "stored");
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].path, "/new");
  EXPECT_EQ(requests[1].method, "PUT");
  EXPECT_EQ(requests[1].body, "%PDF-1.4 the body");
}

TEST(HttpTransferTest, UploadReadsAChunkedAnswer) {
  TestHttpServer server([](const HttpRequest&, HttpReply& reply) {
    reply.status = 422;
    reply.body = "this paper is not in the library";
    reply.chunked = true;
  });
  TempDir dir;
  UploadRequest request;
  request.url = server.url("/p");
  request.file = dir.write("a.pdf", std::string(3 << 20, 'q'));
  TransferResult result = Upload(request);
  EXPECT_EQ(result.error, std::nullopt);
  EXPECT_EQ(result.status, 422);
  EXPECT_EQ(result.body, "this paper is not in the library");
  EXPECT_EQ(server.requests().at(0).body.size(), size_t(3 << 20));
}

TEST(HttpTransferTest, UploadOfAMissingFileFailsBeforeConnecting) {
  TestHttpServer server([](const HttpRequest&, HttpReply&) {});
  UploadRequest request;
  request.url = server.url("/p");
  request.file = "/nonexistent/paper.pdf";
  TransferResult result = Upload(request);
  EXPECT_TRUE(result.error.has_value());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST(HttpTransferTest, UploadToAnAddressThatIsNotHttpFails) {
  TempDir dir;
  UploadRequest request;
  request.url = "ftp://127.0.0.1/x";
  request.file = dir.write("a.pdf", "%PDF-");
  EXPECT_EQ(Upload(request).error, "unsupported URL");
}

TEST(HttpTransferTest, UploadToAHostWithControlCharactersFails) {
  TempDir dir;
  UploadRequest request;
  request.file = dir.write("a.pdf", "%PDF-");
  const std::vector<std::string> urls = {"http://ho\r\nst/x", "http://ho st/x", "http://h\x7f/x",
                                         std::string("http://127.0.0.1\0/x", 19)};
  for (const std::string& url : urls) {
    request.url = url;
    EXPECT_EQ(Upload(request).error, "unsupported URL") << url;
  }
}

TEST(HttpTransferTest, DownloadFollowsRedirects) {
  TestHttpServer server([](const HttpRequest& request, HttpReply& reply) {
    if (request.path == "/moved") {
      reply.status = 302;
      reply.headers["Location"] = "/here.pdf";
    } else {
      reply.body = "%PDF-1.7 moved here";
    }
  });
  TempDir dir;
  std::optional<TransferResult> result;
  DownloadToFile(server.url("/moved"), dir.file("x.pdf"), [&](TransferResult r) { result = r; });
  ASSERT_TRUE(SpinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(TempDir::Read(dir.file("x.pdf")), "%PDF-1.7 moved here");
}

TEST(HttpTransferTest, DownloadCountsOnlyOnceItIsFlushedToDisk) {
  // Every byte reaches a destination that cannot be flushed (a pipe): the
  // download must fail, because success promises bytes on the disk.
  std::string body = "%PDF-1.7 flushed\n%%EOF\n";
  TestHttpServer server([&](const HttpRequest&, HttpReply& reply) { reply.body = body; });
  TempDir dir;
  std::string pipe = dir.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::string drained;
  std::thread reader([&] {
    int fd = open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
      drained.append(buffer, size_t(n));
    close(fd);
  });
  std::optional<TransferResult> result;
  DownloadToFile(server.url("/p.pdf"), pipe, [&](TransferResult r) { result = r; });
  bool ended = SpinUntil([&] { return result.has_value(); });
  // A reader still waiting for a writer gets an empty one, so it ends.
  int writer = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (writer >= 0)
    close(writer);
  reader.join();
  ASSERT_TRUE(ended);
  EXPECT_EQ(drained, body);
  EXPECT_TRUE(result->error.has_value());
}

// An upload of a small file to a server that reads it and then answers
// with `answer` (raw bytes) and hangs up.
TransferResult UploadAnsweredWith(const std::string& answer) {
  RawServer server([&](RawServer&, int client, const std::string& received) {
    RawServer::ReadRequestBody(client, received);
    RawServer::Send(client, answer);
  });
  TempDir dir;
  UploadRequest request;
  request.url = server.url("/p");
  request.file = dir.write("a.pdf", "%PDF-1.4 the body\n%%EOF\n");
  request.timeout_seconds = 5;
  return Upload(request);
}

// Each answer ends its upload with an error text and no status.
void ExpectEachAnswerFailsCleanly(const std::vector<std::string>& answers) {
  for (const std::string& answer : answers) {
    TransferResult result = UploadAnsweredWith(answer);
    EXPECT_TRUE(result.error && !result.error->empty()) << answer;
    EXPECT_EQ(result.status, 0) << answer;
  }
}

TEST(HttpTransferTest, UploadAnswerWithAnImpossibleLengthFailsCleanly) {
  const std::vector<std::string> answers = {
      "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551616\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nContent-Length: 1048577\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nContent-Length: 9\r\n\r\nbody",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n-5\r\nbody\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffffffffffffffffffffff\r\nbody",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100001\r\nbody",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nbody\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbodyXX0\r\n\r\n",
  };
  ExpectEachAnswerFailsCleanly(answers);
}

TEST(HttpTransferTest, UploadAnswerWithABadStatusLineFailsCleanly) {
  const std::vector<std::string> answers = {
      "HTTP/1.1 99999999999999999999 Big\r\n\r\n",
      "HTTP/1.1 -200 Negative\r\n\r\n",
      "HTTP/1.1 2000 Long\r\n\r\n",
      "HTTP/1.1\r\n\r\n",
      "HTTP/1.1 OK\r\n\r\n",
      "ICY 200 OK\r\n\r\n",
      "",
  };
  ExpectEachAnswerFailsCleanly(answers);
}

TEST(HttpTransferTest, UploadAcceptsOneInterimAnswerBeforeTheRealOne) {
  TransferResult result =
      UploadAnsweredWith("HTTP/1.1 100 Continue\r\n\r\n"
                         "HTTP/1.1 201 Created\r\nContent-Length: 6\r\n\r\nstored");
  EXPECT_EQ(result.error, std::nullopt);
  EXPECT_EQ(result.status, 201);
  EXPECT_EQ(result.body, "stored");
}

// The peak resident memory of this process, in KiB, since the last reset.
long PeakResidentKib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0)
      return std::strtol(line.c_str() + 6, nullptr, 10);
  return 0;
}
void ResetPeakResident() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

// A server that reads the upload, sends `start` and then `forever` over and
// over, up to 64 MiB: a client that keeps reading all that is not bounded.
struct EndlessAnswer {
  static constexpr size_t kCap = size_t(64) << 20;
  size_t sent = 0;
  long memory_growth_kib = 0;
  TransferResult result;
};
EndlessAnswer UploadAnsweredEndlessly(const std::string& start, const std::string& piece) {
  EndlessAnswer endless;
  std::string block;
  while (block.size() < 65536)
    block += piece;
  std::atomic<size_t> sent{0};
  TempDir dir;
  {
    RawServer server([&](RawServer& self, int client, const std::string& received) {
      RawServer::ReadRequestBody(client, received);
      RawServer::Send(client, start);
      while (sent < EndlessAnswer::kCap && !self.stopping() && RawServer::Send(client, block))
        sent += block.size();
    });
    UploadRequest request;
    request.url = server.url("/p");
    request.file = dir.write("a.pdf", "%PDF-1.4 the body\n%%EOF\n");
    request.timeout_seconds = 20;
    ResetPeakResident();
    long before = PeakResidentKib();
    endless.result = Upload(request);
    endless.memory_growth_kib = PeakResidentKib() - before;
  }
  endless.sent = sent;
  return endless;
}

TEST(HttpTransferTest, UploadAnswerWithAnEndlessHeaderLineFailsWithoutGrowingMemory) {
  EndlessAnswer endless =
      UploadAnsweredEndlessly("HTTP/1.1 200 OK\r\nX-Endless: ", std::string(1024, 'a'));
  EXPECT_TRUE(endless.result.error);
  EXPECT_EQ(endless.result.status, 0);
  // The client hung up instead of taking it all in.
  EXPECT_LT(endless.sent, EndlessAnswer::kCap);
  EXPECT_LT(endless.memory_growth_kib, 16 * 1024);
}

TEST(HttpTransferTest, UploadAnswerWithEndlessHeadersFailsWithoutGrowingMemory) {
  EndlessAnswer endless = UploadAnsweredEndlessly("HTTP/1.1 200 OK\r\n", "X-More: yes\r\n");
  EXPECT_TRUE(endless.result.error);
  EXPECT_EQ(endless.result.status, 0);
  EXPECT_LT(endless.sent, EndlessAnswer::kCap);
  EXPECT_LT(endless.memory_growth_kib, 16 * 1024);
}

TEST(HttpTransferTest, UploadAnswerOfEndlessInterimAnswersFails) {
  EndlessAnswer endless = UploadAnsweredEndlessly("", "HTTP/1.1 100 Continue\r\n\r\n");
  EXPECT_TRUE(endless.result.error);
  EXPECT_EQ(endless.result.status, 0);
  EXPECT_LT(endless.sent, EndlessAnswer::kCap);
}

TEST(HttpTransferTest, UploadAnswerWithAnEndlessBodyFailsWithoutGrowingMemory) {
  EndlessAnswer endless =
      UploadAnsweredEndlessly("HTTP/1.1 413 Too Big\r\nConnection: close\r\n\r\n", "no ");
  EXPECT_TRUE(endless.result.error);
  EXPECT_LT(endless.sent, EndlessAnswer::kCap);
  EXPECT_LT(endless.memory_growth_kib, 16 * 1024);
}

TEST(HttpTransferTest, UploadToAServerThatGoesSilentEndsAfterTheIdleTimeOut) {
  TempDir dir;
  UploadRequest request;
  request.file = dir.write("a.pdf", "%PDF-1.4 the body\n%%EOF\n");
  request.timeout_seconds = 1;
  {
    // Takes the connection and never reads from it or answers.
    SilentServer silent;
    request.url = silent.address() + "/p";
    TransferResult result = Upload(request);
    EXPECT_TRUE(result.error);
    EXPECT_EQ(result.status, 0);
  }
  {
    // Reads the whole body, then says nothing.
    RawServer server([](RawServer& self, int client, const std::string& received) {
      RawServer::ReadRequestBody(client, received);
      self.holdOpen();
    });
    request.url = server.url("/p");
    TransferResult result = Upload(request);
    EXPECT_TRUE(result.error);
    EXPECT_EQ(result.status, 0);
  }
  {
    // Starts an answer, then says nothing.
    RawServer server([](RawServer& self, int client, const std::string& received) {
      RawServer::ReadRequestBody(client, received);
      RawServer::Send(client, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhal");
      self.holdOpen();
    });
    request.url = server.url("/p");
    TransferResult result = Upload(request);
    EXPECT_TRUE(result.error);
    EXPECT_EQ(result.status, 0);
  }
}

TEST(HttpTransferTest, UploadSendsExactlyTheLengthItDeclares) {
  std::string file_bytes = "%PDF-1.4 " + std::string(3 << 20, 'b') + "\n%%EOF\n";
  std::string received_head, body;
  RawServer server([&](RawServer&, int client, const std::string& received) {
    received_head = received.substr(0, received.find("\r\n\r\n"));
    body = RawServer::ReadRequestBody(client, received);
    RawServer::Send(client, "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
  });
  TempDir dir;
  UploadRequest request;
  request.url = server.url("/p");
  request.file = dir.write("a.pdf", file_bytes);
  TransferResult result = Upload(request);
  EXPECT_EQ(result.error, std::nullopt);
  EXPECT_EQ(result.status, 201);
  EXPECT_EQ(RawServer::DeclaredLength(received_head + "\r\n\r\n"), file_bytes.size());
  EXPECT_EQ(body, file_bytes);
}

} // namespace
} // namespace orvane
