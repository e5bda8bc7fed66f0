// The pieces of a turn request read from the page's payload: the prompt,
// the arguments, the names of turn files and the agent's search path.
#include "agent/AgentPrompt.h"

#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using json = nlohmann::json;

TEST(AgentPromptTest, HeadFullTextAndTailInThatOrder) {
  TempDir folder;
  folder.write("paper.txt", "Line one.\nLine two.");
  json body = {{"prompt_head", "HEAD:"}, {"text_file", "paper.txt"}, {"prompt_tail", ":TAIL"}};
  EXPECT_EQ(BuildAgentPrompt(body, folder.path()),
            "HEAD:[full text follows]\nLine one.\nLine two.\n[/full text]\n:TAIL");
}

TEST(AgentPromptTest, NoSeparatorsBetweenPieces) {
  TempDir folder;
  EXPECT_EQ(BuildAgentPrompt({{"prompt_head", "a"}, {"prompt_tail", "b"}}, folder.path()), "ab");
  EXPECT_EQ(BuildAgentPrompt({{"prompt_tail", "only tail"}}, folder.path()), "only tail");
  EXPECT_EQ(BuildAgentPrompt(json::object(), folder.path()), "");
}

TEST(AgentPromptTest, MissingEmptyOrUndecodableTextFileGivesNoBlock) {
  TempDir folder;
  folder.write("empty.txt", "");
  folder.write("latin1.txt", "caf\xe9");
  for (const char* name : {"absent.txt", "empty.txt", "latin1.txt"}) {
    json body = {{"prompt_head", "H"}, {"text_file", name}, {"prompt_tail", "T"}};
    EXPECT_EQ(BuildAgentPrompt(body, folder.path()), "HT") << name;
  }
}

TEST(AgentPromptTest, TextFileIsLookedUpByItsLastComponentInTheFolder) {
  TempDir folder;
  folder.write("paper.txt", "inside");
  json body = {{"text_file", "../../elsewhere/paper.txt"}};
  EXPECT_EQ(BuildAgentPrompt(body, folder.path()), WrapFullText("inside"));
  EXPECT_EQ(BuildAgentPrompt({{"text_file", "sub/paper.txt/"}}, folder.path()),
            WrapFullText("inside"));
}

TEST(AgentPromptTest, TextFileNamingAFolderGivesNoBlock) {
  TempDir folder;
  folder.write("a.txt", "x");
  for (const char* name : {"", "/", ".", "..", "sub/.."})
    EXPECT_EQ(BuildAgentPrompt({{"text_file", name}}, folder.path()), "") << name;
}

TEST(AgentPromptTest, PiecesOfTheWrongTypeCountAsAbsent) {
  TempDir folder;
  folder.write("paper.txt", "text");
  json body = {
      {"prompt_head", 12}, {"text_file", json::array({"paper.txt"})}, {"prompt_tail", nullptr}};
  EXPECT_EQ(BuildAgentPrompt(body, folder.path()), "");
  EXPECT_EQ(BuildAgentPrompt(json::array(), folder.path()), "");
  EXPECT_EQ(BuildAgentPrompt({{"text_file", std::string("paper.txt\0x", 11)}}, folder.path()), "");
}

TEST(AgentPromptTest, FullTextWrapping) {
  EXPECT_EQ(WrapFullText("T"), "[full text follows]\nT\n[/full text]\n");
  EXPECT_EQ(WrapFullText("ends with a break\n"),
            "[full text follows]\nends with a break\n\n[/full text]\n");
}

TEST(AgentPromptTest, ArgumentsMustBeAnArrayOfStrings) {
  EXPECT_THAT(TurnArguments({{"args", {"-p", "--output-format", "stream-json"}}}),
              Optional(ElementsAre("-p", "--output-format", "stream-json")));
  EXPECT_THAT(TurnArguments({{"args", json::array()}}), Optional(ElementsAre()));
  EXPECT_THAT(TurnArguments({{"args", {"", "with space", "ünïcode"}}}),
              Optional(ElementsAre("", "with space", "ünïcode")));
  EXPECT_EQ(TurnArguments(json::object()), std::nullopt);
  EXPECT_EQ(TurnArguments({{"args", "-p"}}), std::nullopt);
  EXPECT_EQ(TurnArguments({{"args", {"-p", 3}}}), std::nullopt);
  EXPECT_EQ(TurnArguments({{"args", {"-p", nullptr}}}), std::nullopt);
  EXPECT_EQ(TurnArguments({{"args", {"-p", json::array({"x"})}}}), std::nullopt);
  EXPECT_EQ(TurnArguments({{"args", {std::string("a\0b", 3)}}}), std::nullopt);
  EXPECT_EQ(TurnArguments(json::array()), std::nullopt);
}

TEST(AgentPromptTest, StringMemberTakesStringsOnly) {
  json body = {{"turn", "t1"}, {"n", 1}, {"b", true}, {"z", nullptr}};
  EXPECT_THAT(StringMember(body, "turn"), Optional(std::string("t1")));
  EXPECT_EQ(StringMember(body, "n"), std::nullopt);
  EXPECT_EQ(StringMember(body, "b"), std::nullopt);
  EXPECT_EQ(StringMember(body, "z"), std::nullopt);
  EXPECT_EQ(StringMember(body, "missing"), std::nullopt);
  EXPECT_EQ(StringMember(json("text"), "turn"), std::nullopt);
}

TEST(AgentPromptTest, LastPathComponentFollowsPathRules) {
  EXPECT_EQ(LastPathComponent("paper.txt"), "paper.txt");
  EXPECT_EQ(LastPathComponent("/a/b/paper.txt"), "paper.txt");
  EXPECT_EQ(LastPathComponent("../../escape.txt"), "escape.txt");
  EXPECT_EQ(LastPathComponent("dir/"), "dir");
  EXPECT_EQ(LastPathComponent("dir///"), "dir");
  EXPECT_EQ(LastPathComponent("/"), "/");
  EXPECT_EQ(LastPathComponent("///"), "/");
  EXPECT_EQ(LastPathComponent(""), "");
  EXPECT_EQ(LastPathComponent("a/.."), "..");
}

TEST(AgentPromptTest, TurnFileNames) {
  EXPECT_EQ(TurnFileName("../../etc/passwd"), "passwd");
  EXPECT_EQ(TurnFileName(""), "");
  EXPECT_EQ(TurnFileName(42), "");
  EXPECT_EQ(TurnFileName(nullptr), "");
  EXPECT_EQ(TurnFileName(std::string("a\0b", 3)), "");
  EXPECT_TRUE(IsFileName("paper.txt"));
  EXPECT_TRUE(IsFileName("..."));
  EXPECT_FALSE(IsFileName(""));
  EXPECT_FALSE(IsFileName("/"));
  EXPECT_FALSE(IsFileName("."));
  EXPECT_FALSE(IsFileName(".."));
}

TEST(AgentPromptTest, SearchPathPutsTheAgentsFolderFirst) {
  EXPECT_EQ(AgentSearchPath("/opt/tools/bin/claude", "/home/ada", std::string("/usr/bin:/sbin")),
            "/opt/tools/bin:/home/ada/.local/bin:/opt/homebrew/bin:/usr/local/bin:/usr/bin:/sbin");
  EXPECT_EQ(AgentSearchPath("/x/claude", "/h", std::nullopt),
            "/x:/h/.local/bin:/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin");
  // An empty PATH is a PATH all the same.
  EXPECT_EQ(AgentSearchPath("/x/claude", "/h", std::string()),
            "/x:/h/.local/bin:/opt/homebrew/bin:/usr/local/bin:");
}

} // namespace
} // namespace orvane
