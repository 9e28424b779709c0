#include "meter/transcript_line.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "meter/meter_line.h"

namespace ostler {
namespace {

bool decodes(const std::string& line, RawTranscriptLine* out) {
  static TranscriptLineDecoder decoder;  // reused line after line, as the meter does
  return decoder.decode(line, false, out);
}

bool decodes(const std::string& line) {
  RawTranscriptLine ignored;
  return decodes(line, &ignored);
}

TEST(TranscriptLineTest, AReadKeyOfTheWrongTypeFailsTheLine) {
  const std::vector<std::string> bad = {
      R"({"type":5})", R"({"timestamp":1762000000})", R"({"sessionId":["a"]})", R"({"cwd":{}})",
      R"({"requestId":1})", R"({"uuid":false})", R"({"isMeta":"true"})", R"({"isCompactSummary":1})",
      R"({"isSidechain":"no"})", R"({"subtype":1})", R"({"message":"error"})", R"({"message":{"model":5}})",
      R"({"message":{"id":5}})", R"({"message":{"usage":[]}})", R"({"message":{"usage":{"output_tokens":"5"}}})",
      R"({"message":{"usage":{"cache_creation":5}}})",
      R"({"message":{"usage":{"cache_creation":{"ephemeral_1h_input_tokens":"x"}}}})",
      R"({"compactMetadata":"x"})", R"({"compactMetadata":{"preTokens":"5"}})",
      R"({"compactMetadata":{"postTokens":1.5}})", R"({"compactMetadata":{"trigger":5}})",
      R"({"type":5,"type":"user"})",  // the first of duplicate keys is the one read
  };
  for (const auto& line : bad) EXPECT_FALSE(decodes(line)) << line;
}

TEST(TranscriptLineTest, NullIsAbsentAndOtherKeysAreIgnored) {
  RawTranscriptLine line;
  ASSERT_TRUE(decodes(R"({"type":null,"timestamp":null,"sessionId":null,"cwd":null,"requestId":null,
      "uuid":null,"isMeta":null,"isCompactSummary":null,"isSidechain":null,"subtype":null,
      "compactMetadata":null,"message":{"model":null,"usage":null,"content":null,"id":null},
      "Type":5,"data":{"message":{"usage":"nonsense"}},"costUSD":0.5})",
                      &line));
  EXPECT_FALSE(line.type || line.timestamp || line.sessionId || line.cwd || line.requestId || line.uuid ||
               line.isMeta || line.isCompactSummary || line.isSidechain || line.subtype || line.compactMetadata);
  ASSERT_TRUE(line.message.has_value());
  EXPECT_FALSE(line.message->model || line.message->usage || line.message->content || line.message->contentText ||
               line.message->id);

  ASSERT_TRUE(decodes("{}", &line));
  EXPECT_FALSE(line.type.has_value());

  ASSERT_TRUE(decodes(R"({"type":"user","type":5,"typ\u0065":"x","message":{"model":"a","model":"b",
      "usage":{"input_tokens":1,"input_tokens":"x"}}})",
                      &line));
  EXPECT_EQ(line.type, "user");
  EXPECT_EQ(line.message->model, "a");
  EXPECT_EQ(line.message->usage->inputTokens, 1);

  ASSERT_TRUE(decodes(R"({"typ\u0065":"assistant","isSidechain":true,"compactMetadata":{"trigger":"manual",
      "preTokens":150000,"postTokens":9000}})",
                      &line));
  EXPECT_EQ(line.type, "assistant");
  EXPECT_EQ(line.isSidechain, true);
  EXPECT_EQ(line.compactMetadata->trigger, "manual");
  EXPECT_EQ(line.compactMetadata->preTokens, 150000);
  EXPECT_EQ(line.compactMetadata->postTokens, 9000);
}

TEST(TranscriptLineTest, AFailureInsideContentDropsOnlyTheContent) {
  struct Case {
    std::string content;
    bool blocks;  // `content` is filled
    bool text;    // `contentText` is filled
  };
  const std::vector<Case> cases = {
      {R"("hi")", false, true}, {R"(5)", false, false}, {R"([])", true, false},
      {R"([{"type":"text","text":"a"},{"type":"text","text":5}])", false, false},  // the good block goes too
      {R"([{"type":"tool_use","id":"t","name":"Bash","input":"ls"}])", false, false},
      {R"([{"type":"tool_use","input":{"command":5}}])", false, false},
      {R"([{"type":"tool_use","input":{"file_path":["a"]}}])", false, false},
      {R"([{"type":"image","source":"x"}])", false, false},
      {R"([{"type":"image","source":{"data":5}}])", false, false},
      {R"([{"type":"tool_result","tool_use_id":7}])", false, false},
      {R"([{"type":5}])", false, false}, {R"([{"name":{}}])", false, false}, {R"([5])", false, false},
      {R"([{"type":"text","text":null},{"type":"tool_use","input":null}])", true, false},
      {R"([{"type":"tool_result","tool_use_id":"t","content":5}])", true, false},  // a result never fails
      {R"([{"type":"mystery","input":{"other":[1,2],"command":"ls"}}])", true, false},
  };
  for (const auto& c : cases) {
    RawTranscriptLine line;
    const std::string json =
        R"({"type":"assistant","message":{"usage":{"output_tokens":7},"content":)" + c.content + "}}";
    ASSERT_TRUE(decodes(json, &line)) << c.content;
    EXPECT_EQ(line.message->content.has_value(), c.blocks) << c.content;
    EXPECT_EQ(line.message->contentText.has_value(), c.text) << c.content;
    EXPECT_EQ(line.message->usage->outputTokens, 7) << c.content;
  }

  RawTranscriptLine line;
  ASSERT_TRUE(decodes(R"({"message":{"content":[{"type":"tool_use","id":"t1","name":"Read",
      "input":{"file_path":"/a/b.txt","limit":20}},{"type":"image","source":{"data":"QUJD","media_type":1}}]}})",
                      &line));
  const auto& blocks = *line.message->content;
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].input->filePath, "/a/b.txt");
  EXPECT_FALSE(blocks[0].input->command.has_value());
  EXPECT_EQ(imageTokens(blocks[1]), 1);  // four characters of Base64 a token
}

TEST(TranscriptLineTest, ToolResultContentNeverFails) {
  using Kind = RawToolResultContent::Kind;
  struct Case {
    std::string content;
    std::optional<Kind> kind;
    int64_t bytes;
  };
  const std::vector<Case> cases = {
      {R"("abc")", Kind::kText, 3},
      {"\"\xC3\xA9\xE2\x82\xAC\"", Kind::kText, 5},  // UTF-8 bytes, not characters
      {R"([{"text":"ab"},{"text":"cde","type":"text"}])", Kind::kBlocks, 5},
      {R"([{"type":"image","source":{}}])", Kind::kBlocks, 0},  // a block without text measures 0
      {R"([{"text":null}])", Kind::kBlocks, 0}, {R"([])", Kind::kBlocks, 0},
      {R"([{"text":"ab"},{"text":5}])", Kind::kOther, 0}, {R"([{"text":"ab"},"loose"])", Kind::kOther, 0},
      {R"(5)", Kind::kOther, 0}, {R"({"text":"ab"})", Kind::kOther, 0}, {R"(null)", std::nullopt, 0},
  };
  for (const auto& c : cases) {
    RawTranscriptLine line;
    ASSERT_TRUE(decodes(R"({"message":{"content":[{"type":"tool_result","tool_use_id":"t","content":)" + c.content +
                            "}]}}",
                        &line))
        << c.content;
    const auto& result = (*line.message->content)[0].content;
    ASSERT_EQ(result.has_value(), c.kind.has_value()) << c.content;
    if (result) {
      EXPECT_EQ(result->kind, *c.kind) << c.content;
    }
    EXPECT_EQ(toolResultBytes(result), c.bytes) << c.content;
  }
}

TEST(TranscriptLineTest, TurnUsageTakesTheSplitOverTheFlatFigure) {
  struct Case {
    std::string usage;
    TurnUsage expected;
  };
  const std::vector<Case> cases = {
      {R"({"cache_creation_input_tokens":100})", {0, 0, 0, 100, 0}},
      {R"({"cache_creation_input_tokens":100,"cache_creation":{"ephemeral_1h_input_tokens":40}})", {0, 0, 0, 0, 40}},
      {R"({"cache_creation_input_tokens":100,"cache_creation":{}})", {0, 0, 0, 0, 0}},
      {R"({"cache_creation_input_tokens":100,"cache_creation":null})", {0, 0, 0, 100, 0}},
      {R"({"input_tokens":1,"output_tokens":2,"cache_read_input_tokens":3,"cache_creation_input_tokens":9,
          "cache_creation":{"ephemeral_5m_input_tokens":4,"ephemeral_1h_input_tokens":5},"service_tier":"standard"})",
       {1, 2, 3, 4, 5}},
      {R"({})", {}}, {R"(null)", {}},
  };
  for (const auto& c : cases) {
    RawTranscriptLine line;
    ASSERT_TRUE(decodes(R"({"message":{"usage":)" + c.usage + "}}", &line)) << c.usage;
    EXPECT_EQ(turnUsage(line.message), c.expected) << c.usage;
  }
  EXPECT_EQ(turnUsage(std::nullopt), TurnUsage{});
}

std::optional<std::string> typedText(const std::string& json) {
  RawTranscriptLine line;
  EXPECT_TRUE(decodes(json, &line)) << json;
  return extractTypedShareText(line);
}

std::optional<std::string> typedContent(const std::string& content) {
  return typedText(R"({"type":"user","message":{"role":"user","content":)" + content + "}}");
}

TEST(MeterLineTest, TypedShareTextIsWhatAPersonTyped) {
  struct Case {
    std::string content;
    std::optional<std::string> typed;
  };
  const std::vector<Case> cases = {
      {R"("hello")", "hello"},
      {R"("  hello \n\u2028")", "hello"},
      {R"("\n\t ")", std::nullopt},
      {R"("<command-name>/clear</command-name>")", std::nullopt},
      {R"("<command-message>c</command-message>")", std::nullopt},
      {R"("<local-command-stdout>d</local-command-stdout>")", std::nullopt},
      {R"("<local-command-caveat>C</local-command-caveat>")", std::nullopt},
      {R"("<task-notification><id>1</id></task-notification>")", std::nullopt},
      {R"(" <command-name>x")", "<command-name>x"},  // the prefix tests look at the untrimmed text
      {R"("<system-reminder>note</system-reminder>\nfix the bug")", "fix the bug"},
      {R"("<system-reminder>a</system-reminder>b</system-reminder> c")", "b</system-reminder> c"},
      {R"("<system-reminder>note</system-reminder>  \n")", std::nullopt},
      {R"("<system-reminder>never closed")", "<system-reminder>never closed"},
      {R"("fix it <system-reminder>x</system-reminder>")", "fix it <system-reminder>x</system-reminder>"},
      {R"([{"type":"text","text":" a"},{"type":"image"},{"type":"text","text":""},{"type":"text","text":"b "}])",
       "a\nb"},
      {R"([{"type":"text","text":"<command-name>x"}])", "<command-name>x"},  // no tag tests on blocks
      {R"([{"type":"tool_result","tool_use_id":"t","content":"out"}])", std::nullopt},
      {R"([{"type":"text","text":"\n"},{"type":"text","text":" "}])", std::nullopt},
      {R"(5)", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(typedContent(c.content), c.typed) << c.content;

  for (const char* flag : {"isMeta", "isCompactSummary", "isSidechain"}) {
    EXPECT_EQ(typedText(std::string(R"({"type":"user",")") + flag + R"(":true,"message":{"content":"hi"}})"),
              std::nullopt)
        << flag;
    EXPECT_EQ(typedText(std::string(R"({"type":"user",")") + flag + R"(":false,"message":{"content":"hi"}})"), "hi")
        << flag;
  }
  EXPECT_EQ(typedText(R"({"type":"user"})"), std::nullopt);
}

}  // namespace
}  // namespace ostler
