#include "transcript/raw_transcript_line.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ostler {
namespace {

RawTranscriptLine decoded(const std::string& text) {
  static TranscriptLineDecoder decoder;  // reused line after line, as every reader does
  RawTranscriptLine line;
  EXPECT_TRUE(decoder.decode(text, false, &line)) << text;
  return line;
}

TEST(RawTranscriptLineTest, AWrongTypeIsNotedAgainstItsKeyAlone) {
  struct Case {
    std::string line;
    LineKey key;
  };
  const std::vector<Case> cases = {
      {R"({"type":5})", LineKey::kType},
      {R"({"timestamp":1762000000})", LineKey::kTimestamp},
      {R"({"sessionId":["a"]})", LineKey::kSessionId},
      {R"({"cwd":{}})", LineKey::kCwd},
      {R"({"requestId":1})", LineKey::kRequestId},
      {R"({"uuid":false})", LineKey::kUuid},
      {R"({"isMeta":"true"})", LineKey::kIsMeta},
      {R"({"isCompactSummary":1})", LineKey::kIsCompactSummary},
      {R"({"isSidechain":"no"})", LineKey::kIsSidechain},
      {R"({"subtype":1})", LineKey::kSubtype},
      {R"({"error":{"message":"x"}})", LineKey::kError},
      {R"({"aiTitle":[]})", LineKey::kAiTitle},
      {R"({"customTitle":1})", LineKey::kCustomTitle},
      {R"({"lastPrompt":true})", LineKey::kLastPrompt},
      {R"({"isApiErrorMessage":"true"})", LineKey::kIsApiErrorMessage},
      {R"({"message":"error"})", LineKey::kMessage},
      {R"({"message":{"model":5}})", LineKey::kModel},
      {R"({"message":{"id":5}})", LineKey::kMessageId},
      {R"({"message":{"content":5}})", LineKey::kContent},
      {R"({"message":{"usage":[]}})", LineKey::kUsage},
      {R"({"message":{"usage":{"output_tokens":"5"}}})", LineKey::kUsage},
      {R"({"message":{"usage":{"input_tokens":1.5}}})", LineKey::kUsage},  // integers are literals
      {R"({"message":{"usage":{"cache_creation":{"ephemeral_1h_input_tokens":"x"}}}})", LineKey::kUsage},
      {R"({"compactMetadata":"x"})", LineKey::kCompactMetadata},
      {R"({"compactMetadata":{"postTokens":1.5}})", LineKey::kCompactMetadata},
      {R"({"type":5,"type":"user"})", LineKey::kType},  // the first of duplicate keys is the one read
  };
  for (const auto& c : cases) {
    const RawTranscriptLine line = decoded(c.line);
    KeySet<LineKey> expected;
    expected.add(c.key);
    EXPECT_EQ(line.failedKeys.bits, expected.bits) << c.line;
    EXPECT_FALSE(decodes(line, {expected, {}})) << c.line;
    EXPECT_TRUE(decodes(line, {{}, {}})) << c.line;  // a reader blind to the key keeps the line
  }

  RawTranscriptLine ignored;
  TranscriptLineDecoder decoder;
  for (const char* notAnObject : {"[1,2]", "5", "\"x\"", "{", "{\"a\":1}x"})
    EXPECT_FALSE(decoder.decode(notAnObject, false, &ignored)) << notAnObject;
}

TEST(RawTranscriptLineTest, NullIsAbsentAndUnreadKeysAreIgnored) {
  RawTranscriptLine line = decoded(R"({"type":null,"timestamp":null,"sessionId":null,"cwd":null,"requestId":null,
      "uuid":null,"isMeta":null,"isCompactSummary":null,"isSidechain":null,"subtype":null,"error":null,
      "compactMetadata":null,"message":{"model":null,"usage":null,"content":null,"id":null},
      "Type":5,"data":{"message":{"usage":"nonsense"}},"costUSD":0.5})");
  EXPECT_TRUE(line.failedKeys.empty());
  EXPECT_FALSE(line.type || line.timestamp || line.sessionId || line.cwd || line.requestId || line.uuid ||
               line.isMeta || line.isCompactSummary || line.isSidechain || line.subtype || line.compactMetadata ||
               line.error);
  ASSERT_TRUE(line.message.has_value());
  EXPECT_FALSE(line.message->model || line.message->usage || line.message->blocks || line.message->contentText ||
               line.message->id);

  line = decoded(R"({"type":"user","type":5,"typ\u0065":"x","message":{"model":"a","model":"b",
      "usage":{"input_tokens":1,"input_tokens":"x"}}})");
  EXPECT_EQ(line.type, "user");
  EXPECT_EQ(line.message->model, "a");
  EXPECT_EQ(line.message->usage->inputTokens, 1);
  EXPECT_TRUE(line.failedKeys.empty());

}

TEST(RawTranscriptLineTest, EachReaderSeesTheBlockListItsOwnKeysAllow) {
  // One reader holds blocks to their text, another to their tool input.
  const LineReading text{{}, {BlockKey::kNotObject, BlockKey::kText}};
  const LineReading tools{{}, {BlockKey::kNotObject, BlockKey::kInput, BlockKey::kInputCommand}};
  const LineReading strict{{}, {BlockKey::kNotObject, BlockKey::kText, BlockKey::kInput, BlockKey::kInputCommand}, true};
  struct Case {
    std::string content;
    bool forText, forTools;
  };
  const std::vector<Case> cases = {
      {R"([])", true, true},
      {R"([{"type":"text","text":"a"},{"type":"text","text":5}])", false, true},  // the good block goes too
      {R"([{"type":"tool_use","id":"t","name":"Bash","input":"ls"}])", true, false},
      {R"([{"type":"tool_use","input":{"command":5}}])", true, false},
      {R"([5])", false, false},
      {R"([{"type":"text","text":null},{"type":"tool_use","input":null}])", true, true},
      {R"([{"type":"tool_result","tool_use_id":"t","content":5}])", true, true},  // a result never fails
      {R"([{"type":"mystery","input":{"other":[1,2],"command":"ls"}}])", true, true},
  };
  for (const auto& c : cases) {
    const RawTranscriptLine line =
        decoded(R"({"type":"assistant","message":{"usage":{"output_tokens":7},"content":)" + c.content + "}}");
    EXPECT_EQ(contentFor(line, text) != nullptr, c.forText) << c.content;
    EXPECT_EQ(contentFor(line, tools) != nullptr, c.forTools) << c.content;
    EXPECT_EQ(decodes(line, strict), c.forText && c.forTools) << c.content;  // a bad block fails the whole line
    EXPECT_TRUE(decodes(line, text)) << c.content;                            // and only there
    EXPECT_EQ(turnUsageOf(line).output, 7) << c.content;
  }

  // A string fills the text and no list; what is neither fills nothing.
  RawTranscriptLine line = decoded(R"({"message":{"content":"hi"}})");
  EXPECT_EQ(line.message->contentText, "hi");
  EXPECT_EQ(contentFor(line, text), nullptr);
  line = decoded(R"({"message":{"content":{"text":"hi"}}})");
  EXPECT_FALSE(line.message->contentText || line.message->blocks);

  // Images alone are measured, once, at decoding: Base64 runs to megabytes.
  line = decoded(R"({"message":{"content":[{"type":"image","source":{"data":"QUJDRA==","media_type":1}},
      {"type":"document","source":{"data":"QUJD"}}]}})");
  EXPECT_EQ((*line.message->blocks)[0].source->dataCharacters, 8);
  EXPECT_EQ((*line.message->blocks)[1].source->dataCharacters, 0);
}

TEST(RawTranscriptLineTest, ToolResultContentNeverFails) {
  using Kind = RawToolResultContent::Kind;
  struct Case {
    std::string content;
    std::optional<Kind> kind;
    size_t blocks;
  };
  const std::vector<Case> cases = {
      {R"("abc")", Kind::kText, 0},
      {R"([{"text":"ab"},{"text":"cde","type":"text"}])", Kind::kBlocks, 2},
      {R"([{"type":"image","source":{}}])", Kind::kBlocks, 1},
      {R"([{"text":null}])", Kind::kBlocks, 1},
      {R"([])", Kind::kBlocks, 0},
      {R"([{"text":"ab"},{"text":5}])", Kind::kOther, 0},
      {R"([{"text":"ab"},"loose"])", Kind::kOther, 0},
      {R"(5)", Kind::kOther, 0},
      {R"({"text":"ab"})", Kind::kOther, 0},
      {R"(null)", std::nullopt, 0},
  };
  for (const auto& c : cases) {
    const RawTranscriptLine line =
        decoded(R"({"message":{"content":[{"type":"tool_result","tool_use_id":"t","content":)" + c.content + "}]}}");
    ASSERT_TRUE(line.message && line.message->blocks && line.message->failedBlockKeys.empty()) << c.content;
    const auto& result = (*line.message->blocks)[0].content;
    ASSERT_EQ(result.has_value(), c.kind.has_value()) << c.content;
    if (!result) continue;
    EXPECT_EQ(result->kind, *c.kind) << c.content;
    EXPECT_EQ(result->blocks.size(), c.blocks) << c.content;
  }
}

TEST(RawTranscriptLineTest, TurnUsageTakesTheSplitOverTheFlatFigure) {
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
      {R"({})", {}},
      {R"(null)", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(turnUsageOf(decoded(R"({"message":{"usage":)" + c.usage + "}}")), c.expected) << c.usage;
  EXPECT_EQ(turnUsageOf(decoded("{}")), TurnUsage{});
}

}  // namespace
}  // namespace ostler
