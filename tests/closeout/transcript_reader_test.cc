#include "closeout/transcript_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_file_system.h"

namespace ostler {
namespace {

std::string jsonl(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

// A key this reading takes with the wrong type costs the whole line; keys it
// does not read never do, and null is absent everywhere.
TEST(TranscriptReaderTest, LinesStandOrFallByTheKeysThisReadingTakes) {
  const std::vector<std::string> failing = {
      R"({"type":5})",
      R"({"timestamp":1})",
      R"({"message":"x"})",
      R"({"message":{"model":1}})",
      R"({"message":{"content":5}})",
      R"({"message":{"content":{}}})",
      R"({"message":{"content":[1]}})",
      R"({"message":{"content":[{"type":1}]}})",
      R"({"message":{"content":[{"type":"text","text":"ok"},{"text":2}]}})",
      R"({"message":{"content":[{"name":[]}]}})",
      R"({"message":{"content":[{"input":"x"}]}})",
      R"({"message":{"content":[{"id":1}]}})",
      R"({"message":{"content":[{"tool_use_id":1}]}})",
      R"({"message":{"content":[{"is_error":"true"}]}})",
      R"({"message":{"content":[{"input":{"file_path":3}}]}})",
      R"([1])",
      R"({"type":"user")",
  };
  for (const auto& line : failing) EXPECT_TRUE(TranscriptReader::parseLines(line).empty()) << line;

  const std::vector<std::string> standing = {
      R"({})",
      R"({"type":null,"timestamp":null,"message":null})",
      R"({"message":{"model":null,"content":null}})",
      R"({"uuid":5,"sessionId":1,"cwd":[],"requestId":2,"message":{"usage":"x","id":5,"content":"hi"}})",
      R"({"message":{"content":[{"type":"image","source":"x"},{"type":"tool_use","input":{"command":5}}]}})",
      R"({"message":{"content":[{"type":"tool_result","content":7},{"type":"tool_result","content":[1]}]}})",
      R"({"message":{"content":[{"type":"tool_result","content":[{"text":3}]},{"text":null,"id":null}]}})",
      "\xEF\xBB\xBF{\"type\":\"user\"}",
      "{\"type\":\"user\"}\r",
      "{\"type\":\"a\\ud83d\"}",
      "{\"type\":\"\xFF\"}",
  };
  for (const auto& line : standing) EXPECT_EQ(TranscriptReader::parseLines(line).size(), 1u) << line;

  // Of duplicate keys the first wins; a tool result that is not text is
  // `other`, and gives no text.
  auto lines = TranscriptReader::parseLines(
      R"({"type":"user","type":5,"message":{"content":[{"type":"tool_result","content":[{"text":"a"},2]}]}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].type, "user");
  const auto& block = lines[0].message->content->blocks.at(0);
  EXPECT_EQ(block.content->kind, ToolResultContent::Kind::kOther);
  EXPECT_EQ(block.content->plainText(), "");
  EXPECT_EQ(TranscriptReader::parseLines(standing[9]).at(0).type, "a\xEF\xBF\xBD");
}

TEST(TranscriptReaderTest, SkipsBlankAndBrokenPiecesAndKeepsOrder) {
  const std::string text = "\n \t\n{\"type\":\"a\"}\nnot json\n\xE2\x80\x83{\"type\":\"b\"}\t\n{\"type\":\"c\"}";
  const auto lines = TranscriptReader::parseLines(text);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].type, "a");
  EXPECT_EQ(lines[1].type, "b");
  EXPECT_EQ(lines[2].type, "c");
}

TEST(TranscriptReaderTest, ReadsAFileOnlyWhenItIsUtf8) {
  testing::FakeFileSystem fs;
  fs.put("/t.jsonl", jsonl({R"({"type":"user","message":{"content":"hi"}})", "oops", R"({"type":"x"})"}));
  auto lines = TranscriptReader::parseLines(fs, "/t.jsonl");
  ASSERT_TRUE(lines.ok());
  EXPECT_EQ(lines.value().size(), 2u);
  fs.put("/bad.jsonl", "{\"type\":\"\xC3\x28\"}\n");
  EXPECT_FALSE(TranscriptReader::parseLines(fs, "/bad.jsonl").ok());
  EXPECT_FALSE(TranscriptReader::parseLines(fs, "/missing.jsonl").ok());
}

// One transcript read three ways: the prose, what is summarised (prose and
// edit markers) and what citations are grounded in (prose and tool results).
TEST(TranscriptReaderTest, MakesThePlainChunkableAndGroundingTexts) {
  const auto lines = TranscriptReader::parseLines(jsonl({
      R"({"type":"user","message":{"content":"  hello  "}})",
      R"({"type":"assistant","message":{"content":[{"type":"text","text":"a"},{"type":"thinking","text":""},)"
      R"({"type":"text","text":"b"},{"type":"tool_use","name":"Edit","input":{"file_path":"src/x.txt"}},)"
      R"({"type":"tool_use","name":"Read","input":{"file_path":"r.txt"}},)"
      R"({"type":"tool_use","name":"Edit","input":{"file_path":""}},{"type":"tool_use","name":"Edit"},)"
      R"({"type":"text","name":"Write","input":{"file_path":"no.txt"}},)"
      R"({"type":"tool_use","name":"Write","input":{"file_path":"y.txt","content":"body"}}]}})",
      R"({"type":"user","message":{"content":[{"type":"tool_result","content":"result text"},)"
      R"({"type":"tool_result","content":[{"text":"r1"},{"text":null},{"text":"r2"}]},)"
      R"({"type":"tool_result"},{"type":"tool_result","content":"  "}]}})",
      R"({"type":"user","message":{"content":" \n\u2028 "}})",
      R"({"type":"system","message":{"content":"sys"}})",
      R"({"type":"assistant"})",
  }));
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(TranscriptReader::plainText(lines), "  hello  \n\na\n\nb\n\nsys");
  EXPECT_EQ(TranscriptReader::chunkableText(lines),
            "hello\n\na\n\nb\n\n[file touched: src/x.txt]\n\n[file touched: y.txt]\n\nsys");
  EXPECT_EQ(TranscriptReader::groundingText(lines), "hello\n\na\n\nb\n\nresult text\n\nr1\nr2\n\nsys");
  EXPECT_EQ(TranscriptReader::editEvents(lines), (std::vector<EditEvent>{{1, "src/x.txt"}, {1, "y.txt"}}));

  const std::vector<TranscriptLine> none;
  EXPECT_EQ(TranscriptReader::plainText(none), "");
  EXPECT_EQ(TranscriptReader::chunkableText(none), "");
  EXPECT_EQ(TranscriptReader::groundingText(none), "");
}

// The final third is the smaller part when the count does not divide by 3.
TEST(TranscriptReaderTest, TopEditedFilesCountOnlyTheFinalThird) {
  for (const auto& [count, start] : std::vector<std::pair<int64_t, int64_t>>{
           {0, 0}, {1, 1}, {2, 2}, {3, 2}, {9, 6}, {10, 7}, {11, 8}, {12, 8}})
    EXPECT_EQ(TranscriptReader::finalThirdStartIndex(count), start) << count;

  auto edit = [](const std::string& path) {
    return R"({"type":"assistant","message":{"content":[{"type":"tool_use","name":"Edit","input":{"file_path":")" +
           path + R"("}}]}})";
  };
  std::vector<std::string> raw;
  raw.push_back(R"({"type":"assistant","message":{"content":[)" + std::string(
      R"({"type":"tool_use","name":"Edit","input":{"file_path":"early.txt"}},)") + std::string(
      R"({"type":"tool_use","name":"Write","input":{"file_path":"early.txt"}}]}})"));
  for (int i = 0; i < 5; ++i) raw.push_back(R"({"type":"user"})");
  // Lines 6 to 8 are the final third of 9.
  raw.push_back(R"({"type":"assistant","message":{"content":[)"
                R"({"type":"tool_use","name":"Edit","input":{"file_path":"b.txt"}},)"
                R"({"type":"tool_use","name":"Write","input":{"file_path":"a.txt"}}]}})");
  raw.push_back(edit("./b.txt"));
  raw.push_back(R"({"type":"assistant","message":{"content":[)"
                R"({"type":"tool_use","name":"Edit","input":{"file_path":"a.txt"}},)"
                R"({"type":"tool_use","name":"Edit","input":{"file_path":"b.txt"}}]}})");
  const auto lines = TranscriptReader::parseLines(jsonl(raw));
  ASSERT_EQ(lines.size(), 9u);
  using F = TranscriptReader::EditedFile;
  EXPECT_EQ(TranscriptReader::topEditedFilesInFinalThird(lines, 5),
            (std::vector<F>{{"a.txt", 2}, {"b.txt", 2}, {"./b.txt", 1}}));
  EXPECT_EQ(TranscriptReader::topEditedFilesInFinalThird(lines, 1), (std::vector<F>{{"a.txt", 2}}));
  EXPECT_TRUE(TranscriptReader::topEditedFilesInFinalThird(std::span(lines).first(1), 5).empty());
}

}  // namespace
}  // namespace ostler
