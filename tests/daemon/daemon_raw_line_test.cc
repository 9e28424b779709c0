#include "daemon/daemon_raw_line.h"

#include <gtest/gtest.h>

#include <string>

namespace ostler {
namespace {

bool decode(const std::string& text, DaemonRawLine* out) {
  static DaemonLineDecoder decoder;
  return decoder.decode(text, false, out);
}

TEST(DaemonRawLineTest, StrictOnReadKeysButBlindToOthers) {
  DaemonRawLine line;
  // Keys the live reading never reads may hold anything.
  EXPECT_TRUE(decode(R"({"type":"assistant","uuid":5,"isMeta":"yes","subtype":[],"compactMetadata":7})", &line));
  EXPECT_EQ(line.type, "assistant");

  // Each read key of the wrong type fails the whole line; the usage object
  // is the meter's own, whose keys its tests go through one by one.
  for (const char* bad : {
           R"({"type":1})", R"({"timestamp":false})", R"({"sessionId":{}})", R"({"cwd":2})",
           R"({"isApiErrorMessage":"true"})", R"({"error":{"message":"x"}})", R"({"requestId":9})",
           R"({"aiTitle":[]})", R"({"customTitle":1})", R"({"lastPrompt":true})", R"({"message":"hi"})",
           R"({"message":{"model":4}})", R"({"message":{"usage":{"input_tokens":1.5}}})", R"([1,2])"}) {
    EXPECT_FALSE(decode(bad, &line)) << bad;
  }

  // Null is absent, never the wrong type; the first of duplicate keys wins.
  ASSERT_TRUE(decode(R"({"type":null,"requestId":"a","requestId":5,"message":{"usage":null}})", &line));
  EXPECT_FALSE(line.type);
  EXPECT_EQ(line.requestId, "a");
  ASSERT_TRUE(line.message);
  EXPECT_FALSE(line.message->usage);
}

TEST(DaemonRawLineTest, ContentIsLenient) {
  DaemonRawLine line;
  ASSERT_TRUE(decode(R"({"type":"user","message":{"content":"hi"}})", &line));
  EXPECT_EQ(line.message->contentText, "hi");
  EXPECT_FALSE(line.message->content);

  ASSERT_TRUE(decode(R"({"message":{"content":42}})", &line));
  EXPECT_FALSE(line.message->contentText);
  EXPECT_FALSE(line.message->content);

  // One bad block loses the good one with it, but not the line or its usage.
  ASSERT_TRUE(decode(
      R"({"message":{"content":[{"type":"text","text":"ok"},{"type":"text","text":3}],"usage":{"input_tokens":7}}})",
      &line));
  EXPECT_FALSE(line.message->content);
  EXPECT_EQ(daemonTurnUsage(line).input, 7);

  // Tool fields are not read here, so a tool_use with a string input is fine.
  ASSERT_TRUE(decode(
      R"({"message":{"content":[{"type":"tool_use","input":"x","name":1},{"type":"image","source":{"data":"QUJD","media_type":2}}]}})",
      &line));
  ASSERT_TRUE(line.message->content);
  ASSERT_EQ(line.message->content->size(), 2u);
  EXPECT_EQ((*line.message->content)[1].source->data, "QUJD");

  ASSERT_TRUE(decode(R"({"message":{"content":[{"type":"image","source":"QUJD"}]}})", &line));
  EXPECT_FALSE(line.message->content);

  // Usage is read as the meter reads it; without a message there is none.
  ASSERT_TRUE(decode(R"({"type":"assistant"})", &line));
  EXPECT_EQ(daemonTurnUsage(line), TurnUsage{});
  EXPECT_EQ(daemonModel(line), "");
}

TEST(DaemonRawLineTest, JoinsBlockTextsWithOneSpace) {
  DaemonRawLine line;
  ASSERT_TRUE(decode(
      R"({"message":{"content":[{"type":"text","text":"Session limit reached"},{"type":"image"},{"type":"text","text":"resets 3pm"}]}})",
      &line));
  EXPECT_EQ(joinedBlockText(line), "Session limit reached resets 3pm");
  ASSERT_TRUE(decode(R"({"message":{"content":"Session limit reached"}})", &line));
  EXPECT_EQ(joinedBlockText(line), "");
}

}  // namespace
}  // namespace ostler
