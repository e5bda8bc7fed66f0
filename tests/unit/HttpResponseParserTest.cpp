// The reading of a server's HTTP/1.1 answer, bytes in, answer out: as the
// upload client keeps it, and as the development server's probe drops its body.
#include "base/HttpResponseParser.h"

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

// The whole answer fed in pieces of 64 KiB to a parser that drops the body.
HttpResponseParser Dropping(const std::string& bytes, int interim_answers = 1) {
  HttpResponseParser parser(HttpResponseParser::Body::Drop, interim_answers);
  for (size_t at = 0; at < bytes.size(); at += 0x10000)
    parser.feed(std::string_view(bytes).substr(at, 0x10000));
  return parser;
}

TEST(HttpResponseParserTest, ADroppedBodyIsCountedAndNotHeld) {
  const std::string big(3 * kMaxResponseBody, 'b');
  HttpResponseParser by_length =
      Dropping("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(big.size()) + "\r\n\r\n" +
               big + "HTTP/1.1 500 No\r\n\r\n");
  ASSERT_EQ(by_length.state(), HttpResponseParser::State::Done) << by_length.error();
  EXPECT_EQ(by_length.response().status, 200);
  EXPECT_EQ(by_length.response().declared_length, int64_t(big.size()));
  EXPECT_EQ(by_length.bodyLength(), big.size());
  EXPECT_EQ(by_length.response().body, "");

  std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 48; ++i)
    chunked += "10000\r\n" + std::string(0x10000, 'c') + "\r\n";
  HttpResponseParser by_chunks = Dropping(chunked + "0\r\nX-Trailer: t\r\n\r\n");
  ASSERT_EQ(by_chunks.state(), HttpResponseParser::State::Done) << by_chunks.error();
  EXPECT_EQ(by_chunks.bodyLength(), 48u * 0x10000);
  EXPECT_EQ(by_chunks.response().body, "");
  // The framing is checked as when the body is kept.
  EXPECT_EQ(
      Dropping("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbodyXX\r\n").error(),
      "The server's answer has an invalid chunk");
}

TEST(HttpResponseParserTest, ABodyThatNeverEndsKeepsADroppingParserSmall) {
  // A body without a length, 64 MiB and still coming: nothing of it is
  // held, and the answer is complete only when the connection ends.
  HttpResponseParser parser(HttpResponseParser::Body::Drop);
  parser.feed("HTTP/1.1 200 OK\r\n\r\n");
  const std::string piece(0x10000, 'x');
  for (int i = 0; i < 1024; ++i)
    ASSERT_EQ(parser.feed(piece), HttpResponseParser::State::NeedMore) << i;
  EXPECT_TRUE(parser.headArrived());
  EXPECT_EQ(parser.bodyLength(), 1024u * piece.size());
  EXPECT_EQ(parser.response().body.capacity(), std::string().capacity());
  EXPECT_EQ(parser.finish(), HttpResponseParser::State::Done);

  // Lengths a dropping parser counts to, and those it refuses.
  HttpResponseParser huge = Dropping(
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kMaxCountedBody) + "\r\n\r\nxyz");
  EXPECT_EQ(huge.state(), HttpResponseParser::State::NeedMore);
  EXPECT_EQ(huge.bodyLength(), 3u);
  EXPECT_EQ(Dropping("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kMaxCountedBody + 1) +
                     "\r\n\r\n")
                .error(),
            "The server's answer is too long");
  EXPECT_EQ(Dropping("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                     "fffffffffffffffffffffff\r\n")
                .error(),
            "The server's answer is too long");
}

TEST(HttpResponseParserTest, TheStatusOfAnArrivedHeadStandsWhenTheBodyFails) {
  for (std::string answer : {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n[]",
                             "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
    HttpResponseParser parser;
    ASSERT_EQ(parser.feed(answer), HttpResponseParser::State::Failed) << answer;
    EXPECT_TRUE(parser.headArrived()) << answer;
    EXPECT_EQ(parser.response().status, 200) << answer;
  }
  // Not before the final head has ended.
  for (std::string answer : {"HTTP/1.1 200 OK\r\nX: " + std::string(kMaxResponseLine, 'v') + "\r\n",
                             std::string("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n")}) {
    HttpResponseParser parser;
    parser.feed(answer);
    parser.finish();
    EXPECT_EQ(parser.state(), HttpResponseParser::State::Failed);
    EXPECT_FALSE(parser.headArrived()) << answer.substr(0, 40);
  }
}

TEST(HttpResponseParserTest, TheNumberOfInterimAnswersIsTheReadersChoice) {
  std::string four;
  for (int i = 0; i < 4; ++i)
    four += "HTTP/1.1 100 Continue\r\n\r\n";
  const std::string final_answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  EXPECT_EQ(Dropping(four + final_answer, 4).state(), HttpResponseParser::State::Done);
  EXPECT_EQ(Dropping(four + "HTTP/1.1 103 Early Hints\r\n\r\n" + final_answer, 4).state(),
            HttpResponseParser::State::Failed);
  EXPECT_EQ(Dropping(final_answer, 0).state(), HttpResponseParser::State::Done);
  EXPECT_EQ(Dropping("HTTP/1.1 100 Continue\r\n\r\n" + final_answer, 0).state(),
            HttpResponseParser::State::Failed);
}

} // namespace
} // namespace orvane
