// The transfer functions on their own, against real loopback servers.
#include "library/HttpTransfer.h"

#include "support/MainLoop.h"
#include "support/TempDir.h"
#include "support/TestHttpServer.h"

#include <fcntl.h>
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

} // namespace
} // namespace orvane
