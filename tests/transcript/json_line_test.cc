// The rules of a whole line: what makes it JSON, and what valid JSON the
// parser underneath refuses but the meter must still read.
#include "transcript/json_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "transcript/raw_transcript_line.h"

namespace ostler {
namespace {

const std::string R = "\xEF\xBF\xBD";  // U+FFFD

// Whether `line` is JSON whose every key read is of its type. Views in a
// decoded line stay valid until the decoder's next call.
bool decodes(const std::string& line, RawTranscriptLine* out) {
  static TranscriptLineDecoder decoder;
  return decoder.decode(line, false, out) && out->failedKeys.empty();
}

bool decodes(const std::string& line) {
  RawTranscriptLine ignored;
  return decodes(line, &ignored);
}

// The value of `cwd` after decoding `{"cwd": <json>}`.
std::string cwdOf(const std::string& json) {
  RawTranscriptLine line;
  EXPECT_TRUE(decodes(R"({"type":"user","cwd":)" + json + "}", &line)) << json;
  return line.cwd ? std::string(*line.cwd) : "(absent)";
}

TEST(JsonLineTest, AFlawAnywhereFailsTheWholeLine) {
  const std::vector<std::string> bad = {
      R"({"type":"user","x":[1,2,]})", R"({"type":"user",})",  // trailing commas under keys never read
      R"({"type":"user","x":"\q"})", R"({"type":"user","x":"\u12"})",  // bad escapes
      "{\"x\":\"a\tb\"}", "{\"x\":\"a\x01\"}", "{\"x\":\"\x1f\"}",   // raw control characters in a string
      R"({"x":NaN})", R"({"x":Infinity})", R"({"x":-Infinity})",
      R"({"x":01})", R"({"x":-01})", R"({"x":1.})", R"({"x":.5})", R"({"x":+1})", R"({"x":1e})", R"({"x":0x10})",
      R"({"x":'s'})", R"({x:1})", R"({"a":tru})", R"({"a":1)", R"({"a" 1})",
      R"({"a":1}{"b":2})", R"({"a":1} x)",  // two objects run together, or trailing text
      "{\"a\":1}\f", "\x0B{\"a\":1}",     // form and line tabulations are no JSON whitespace
      R"([])", R"("s")", R"(42)", R"(null)", R"(true)", R"([{"type":"user"}])",  // top level not an object
      // Repairs of the line never excuse a flaw elsewhere in it.
      "{\"a\":\"\xff\",}", R"({"a":"\ud800",})", R"({"a":1e400,})",
      // A number too large to hold, run into more number characters, is no
      // number at all; standing in for it must not make one.
      R"({"a":1e400e5})", R"({"a":1e400E+5})", R"({"a":5-1e400})", R"({"a":--1e400})",
      R"({"a":12-123456789012345678901234567890})", R"({"a":123456789012345678901234567890.})",
      "\xEF\xBB\xBF\xEF\xBB\xBF{}",     // only one byte order mark is skipped
  };
  for (const auto& line : bad) EXPECT_FALSE(decodes(line)) << ::testing::PrintToString(line);
}

TEST(JsonLineTest, ValidJsonTheParserRefusesStillDecodes) {
  RawTranscriptLine line;
  ASSERT_TRUE(decodes("\xEF\xBB\xBF{\"type\":\"user\"}", &line));
  EXPECT_EQ(line.type, "user");

  EXPECT_EQ(cwdOf("\"/a/\xff\xfe" "b\""), "/a/" + R + R + "b");  // invalid UTF-8 repaired
  EXPECT_EQ(cwdOf("\"\xED\xA0\x80\""), R + R + R);
  EXPECT_EQ(cwdOf(R"("\ud83d")"), R);                          // unpaired surrogate escapes
  EXPECT_EQ(cwdOf(R"("x\udc00y")"), "x" + R + "y");
  EXPECT_EQ(cwdOf(R"("\ud83d\ud83d\ude00")"), R + "\xF0\x9F\x98\x80");
  EXPECT_EQ(cwdOf(R"("\ude00\ud83d")"), R + R);
  EXPECT_EQ(cwdOf(R"("\ud83d\ude00")"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(cwdOf(R"("\\ud83d")"), R"(\ud83d)");               // an escaped backslash, not an escape
  EXPECT_EQ(cwdOf("\"a\x7F\xE2\x80\xA8" "b\""), "a\x7F\xE2\x80\xA8" "b");  // DEL and U+2028 raw are fine
  EXPECT_EQ(cwdOf(R"("\u0000")"), std::string(1, '\0'));

  const std::vector<std::string> good = {
      R"({"\ud800":1,"type":"user"})",
      // Numbers no double holds, under keys never read.
      R"({"x":1e400,"type":"user"})", R"({"x":-1e999,"type":"user"})",
      R"({"x":123456789012345678901234567890,"type":"user"})", R"({"x":[1e400, "\udfff"],"type":"user"})",
      R"({"x":[-1e400,1e400],"y":{"z":-123456789012345678901234567890},"type":"user"})",
      "\xEF\xBB\xBF{\"x\":\"\\ud800\",\"y\":\"\xC3\",\"z\":1e400,\"type\":\"user\"}",
      "{\"type\":\"user\"}\r", " \n{\"type\":\"user\"}\n",  // JSON whitespace around the object
  };
  for (const auto& g : good) {
    RawTranscriptLine decoded;
    EXPECT_TRUE(decodes(g, &decoded)) << ::testing::PrintToString(g);
    EXPECT_EQ(decoded.type, "user") << ::testing::PrintToString(g);
  }
}

// A line nested `depth` levels deep, counting the top-level object: through
// arrays down to an empty one, or through objects down to one holding a
// number.
std::string nested(int depth, bool objects) {
  std::string s = "{\"type\":\"user\",\"x\":";
  for (int i = 1; i < depth; ++i) s += objects ? "{\"k\":" : "[";
  if (objects) s += "1";
  for (int i = 1; i < depth; ++i) s += objects ? "}" : "]";
  return s + "}";
}

// Levels are containers: 1,024 of them pass whether the innermost is empty
// or holds a number, on the fast path and on the slow one that repairs the
// line first.
TEST(JsonLineTest, NestingDeeperThan1024LevelsFails) {
  for (const std::string bom : {"", "\xEF\xBB\xBF"}) {
    for (bool objects : {false, true}) {
      EXPECT_TRUE(decodes(bom + nested(1024, objects))) << bom.size() << objects;
      EXPECT_FALSE(decodes(bom + nested(1025, objects))) << bom.size() << objects;
    }
  }
}

// Token counts are whole numbers from 0 to 2^40: the bound keeps every sum
// far from overflow, and a count past it (or below 0) marks a corrupt line.
TEST(JsonLineTest, TokenCountsAreWholeNumbersFrom0To2Pow40) {
  struct Case {
    std::string value;
    bool decodes;
    int64_t read;
  };
  const std::vector<Case> cases = {
      {"5", true, 5},          {"0", true, 0},          {"-0", true, 0},       {"1099511627776", true, int64_t{1} << 40},
      {"1099511627777", false, 0},                      {"-1", false, 0},      {"9223372036854775807", false, 0},
      {"-9223372036854775808", false, 0},               {"9223372036854775808", false, 0},
      {"18446744073709551615", false, 0},               {"5.0", false, 0},     {"5e2", false, 0},
      {"5E0", false, 0},       {"1e30", false, 0},      {"1e400", false, 0},   {"0.0", false, 0},
      {"\"5\"", false, 0},     {"true", false, 0},      {"[5]", false, 0},
  };
  for (const char* key : {"input_tokens", "cache_read_input_tokens", "cache_creation\":{\"ephemeral_1h_input_tokens"}) {
    const bool nested = std::string_view(key).starts_with("cache_creation");
    for (const auto& c : cases) {
      RawTranscriptLine line;
      const std::string json = std::string(R"({"type":"assistant","message":{"usage":{")") + key + "\":" + c.value +
                               (nested ? "}}}}" : "}}}");
      ASSERT_EQ(decodes(json, &line), c.decodes) << key << " " << c.value;
      if (!c.decodes) {
        EXPECT_TRUE(line.failedKeys.contains(LineKey::kUsage)) << key << " " << c.value;
        continue;
      }
      const RawUsage& usage = *line.message->usage;
      const std::optional<int64_t> read = nested                   ? usage.cacheCreation->ephemeral1hInputTokens
                                          : key[0] == 'i' ? usage.inputTokens
                                                                   : usage.cacheReadInputTokens;
      EXPECT_EQ(read, c.read) << key << " " << c.value;
    }
  }
  RawTranscriptLine line;
  ASSERT_TRUE(decodes(R"({"message":{"usage":{"input_tokens":null}}})", &line));
  EXPECT_FALSE(line.message->usage->inputTokens.has_value());
}

}  // namespace
}  // namespace ostler
