// The upload client's reading of a server's answer, bytes in, answer out.
#include "library/HttpResponseParser.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

std::string ErrorOf(const std::string& bytes) {
  ParsedResponse parsed = ParseHttpResponse(bytes);
  EXPECT_FALSE(parsed.response) << bytes.substr(0, 200);
  return parsed.error;
}

HttpResponse AnswerOf(const std::string& bytes) {
  ParsedResponse parsed = ParseHttpResponse(bytes);
  EXPECT_TRUE(parsed.response) << parsed.error << " for " << bytes.substr(0, 200);
  return parsed.response.value_or(HttpResponse{});
}

TEST(HttpResponseParserTest, ReadsStatusHeadersAndALengthBody) {
  HttpResponse answer = AnswerOf("HTTP/1.1 201 Created\r\nContent-Length: 6\r\n"
                                 "X-Upsert-Result:  stored \t\r\nETAG: \"v3\"\r\n\r\nstored");
  EXPECT_EQ(answer.status, 201);
  EXPECT_EQ(answer.body, "stored");
  EXPECT_EQ(answer.declared_length, 6);
  EXPECT_EQ(answer.headers["x-upsert-result"], "stored");
  EXPECT_EQ(answer.headers["etag"], "\"v3\"");
}

TEST(HttpResponseParserTest, AcceptsBareLineFeedsAndAStatusWithoutReason) {
  HttpResponse answer = AnswerOf("HTTP/1.0 200\nContent-Length: 2\n\nok");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "ok");
}

TEST(HttpResponseParserTest, ReadsAChunkedBodyWithExtensionsAndTrailers) {
  HttpResponse answer = AnswerOf("HTTP/1.1 422 Unprocessable\r\nTransfer-Encoding: chunked\r\n\r\n"
                                 "4;name=value\r\nthis\r\nA \r\n paper is \r\n0\r\n"
                                 "X-Trailer: yes\r\n\r\n");
  EXPECT_EQ(answer.status, 422);
  EXPECT_EQ(answer.body, "this paper is ");
  EXPECT_EQ(answer.declared_length, std::nullopt);
  EXPECT_EQ(answer.headers.count("x-trailer"), 0u);
}

TEST(HttpResponseParserTest, ChunkedBodyMayEndWithoutItsFinalBlankLine) {
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n").body,
            "ok");
}

TEST(HttpResponseParserTest, BodyWithoutALengthRunsToTheEndOfTheConnection) {
  HttpResponse answer = AnswerOf("HTTP/1.1 413 Too Big\r\nConnection: close\r\n\r\ntoo big");
  EXPECT_EQ(answer.status, 413);
  EXPECT_EQ(answer.body, "too big");
}

TEST(HttpResponseParserTest, NoContentAndNotModifiedHaveNoBody) {
  EXPECT_EQ(AnswerOf("HTTP/1.1 204 No Content\r\n\r\nstray bytes").body, "");
  EXPECT_EQ(AnswerOf("HTTP/1.1 304 Not Modified\r\n\r\n").body, "");
}

TEST(HttpResponseParserTest, BytesAfterTheAnswerAreIgnored) {
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nokHTTP/1.1 500 No\r\n\r\n").body,
            "ok");
}

TEST(HttpResponseParserTest, OneInterimAnswerIsSkippedASecondFails) {
  HttpResponse answer = AnswerOf("HTTP/1.1 100 Continue\r\n\r\n"
                                 "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(answer.status, 201);
  EXPECT_EQ(ErrorOf("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 100 Continue\r\n\r\n"
                    "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"),
            "The server sent more than one interim answer");
  EXPECT_EQ(ErrorOf("HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\nHTTP/1.1 100 Continue\r\n\r\n"),
            "The server sent more than one interim answer");
}

TEST(HttpResponseParserTest, StatusLinesThatAreNotHttpFail) {
  for (std::string line :
       {"HTTP/1.1 99999999999999999999 Big", "HTTP/1.1 -200 Negative", "HTTP/1.1 2000 Long",
        "HTTP/1.1 20 Short", "HTTP/1.1", "HTTP/1.1 OK", "HTTP/1.1 099 Low", "ICY 200 OK",
        "http/1.1 200 OK", "HTTP/1.1  200 OK", "\x01\x02\x03"})
    EXPECT_EQ(ErrorOf(line + "\r\nContent-Length: 0\r\n\r\n"), "The server's answer was not HTTP")
        << line;
}

TEST(HttpResponseParserTest, ImpossibleLengthsFail) {
  for (std::string length : {"-1", "+5", "", "12abc", "0x10", "5, 5", "1 2", "1.5"})
    EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\nbody"),
              "The server's answer has an invalid length")
        << length;
  for (std::string length :
       {"99999999999999999999999", "18446744073709551616", "9223372036854775808", "1048577"})
    EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\nbody"),
              "The server's answer is too long")
        << length;
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nContent-Length: 4\r\nContent-Length: 9\r\n\r\nbody"),
            "The server's answer has an invalid length");
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\nContent-Length: 4\r\ncontent-length: 4\r\n\r\nbody").body,
            "body");
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\nContent-Length: 0000000000000000000000004\r\n\r\nbody")
                .declared_length,
            4);
}

TEST(HttpResponseParserTest, ImpossibleChunkSizesFail) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (std::string size : {"-5", "zz", "", "0x4", " ; ext"})
    EXPECT_EQ(ErrorOf(head + size + "\r\nbody\r\n0\r\n\r\n"),
              "The server's answer has an invalid chunk")
        << size;
  for (std::string size : {"fffffffffffffffffffffff", "10000000000000000", "100001"})
    EXPECT_EQ(ErrorOf(head + size + "\r\nbody"), "The server's answer is too long") << size;
  // Chunk data must be followed by its line end, not by more data.
  EXPECT_EQ(ErrorOf(head + "4\r\nbodyXX\r\n0\r\n\r\n"), "The server's answer has an invalid chunk");
}

TEST(HttpResponseParserTest, BodiesAreCappedAtOneMebibyte) {
  const std::string full(kMaxResponseBody, 'b');
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\nContent-Length: 1048576\r\n\r\n" + full).body.size(),
            kMaxResponseBody);
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\n\r\n" + full).body.size(), kMaxResponseBody);
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\n\r\n" + full + "b"), "The server's answer is too long");
  // Chunks that are each small but add up to more.
  std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  std::string piece(0x10000, 'c');
  for (int i = 0; i < 16; ++i)
    chunked += "10000\r\n" + piece + "\r\n";
  EXPECT_EQ(AnswerOf(chunked + "0\r\n\r\n").body.size(), kMaxResponseBody);
  EXPECT_EQ(ErrorOf(chunked + "1\r\nc\r\n0\r\n\r\n"), "The server's answer is too long");
}

TEST(HttpResponseParserTest, HeaderLinesAreCappedInLengthAndNumber) {
  // The line "X: vvv..." of exactly the cap passes; one byte more fails.
  std::string longest = "X: " + std::string(kMaxResponseLine - 3, 'v');
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\n" + longest + "\r\nContent-Length: 0\r\n\r\n")
                .headers["x"]
                .size(),
            kMaxResponseLine - 3);
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\n" + longest + "v\r\nContent-Length: 0\r\n\r\n"),
            "A line of the server's answer is too long");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nX: " + std::string(10 << 20, 'v')),
            "A line of the server's answer is too long");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 " + std::string(kMaxResponseLine, 'r') + "\r\n\r\n"),
            "A line of the server's answer is too long");

  std::string hundred;
  for (size_t i = 0; i < kMaxResponseHeaders - 1; ++i)
    hundred += "X-" + std::to_string(i) + ": v\r\n";
  hundred += "Content-Length: 2\r\n";
  EXPECT_EQ(AnswerOf("HTTP/1.1 200 OK\r\n" + hundred + "\r\nok").body, "ok");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\n" + hundred + "X-One-More: v\r\n\r\nok"),
            "The server's answer has too many header lines");
  // Lines without a colon count too.
  std::string junk;
  for (int i = 0; i < 101; ++i)
    junk += "junk\r\n";
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\n" + junk + "\r\n"),
            "The server's answer has too many header lines");
}

TEST(HttpResponseParserTest, ConnectionsThatEndEarlyFail) {
  EXPECT_EQ(ErrorOf(""), "The server closed the connection");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nContent-"), "The server closed the connection");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"),
            "The connection was lost before the answer");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nshort"),
            "The connection was lost before the answer");
  EXPECT_EQ(ErrorOf("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nX-Tr"),
            "The connection was lost before the answer");
}

TEST(HttpResponseParserTest, PiecesOfAnySizeGiveTheSameAnswer) {
  const std::string bytes = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n"
                            "Transfer-Encoding: chunked\r\nX-A: b\r\n\r\n"
                            "3\r\nabc\r\n5;x=y\r\ndefgh\r\n0\r\n\r\n";
  for (size_t piece = 1; piece <= bytes.size(); ++piece) {
    HttpResponseParser parser;
    for (size_t at = 0; at < bytes.size(); at += piece)
      parser.feed(std::string_view(bytes).substr(at, piece));
    ASSERT_EQ(parser.state(), HttpResponseParser::State::Done) << piece;
    EXPECT_EQ(parser.response().body, "abcdefgh");
    EXPECT_EQ(parser.response().headers.at("x-a"), "b");
  }
}

TEST(HttpResponseParserTest, NothingIsTakenAfterTheParserHasFailed) {
  HttpResponseParser parser;
  EXPECT_EQ(parser.feed("NOT HTTP\r\n"), HttpResponseParser::State::Failed);
  EXPECT_EQ(parser.feed("HTTP/1.1 200 OK\r\n\r\n"), HttpResponseParser::State::Failed);
  EXPECT_EQ(parser.finish(), HttpResponseParser::State::Failed);
  EXPECT_EQ(parser.error(), "The server's answer was not HTTP");
}

} // namespace
} // namespace orvane
