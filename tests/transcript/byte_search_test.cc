#include "transcript/byte_search.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "transcript/raw_transcript_line.h"

namespace ostler {
namespace {

TEST(ByteSearchTest, TypeHintReadsOnlyTheTopLevelTypeKey) {
  struct Case {
    std::string line;
    TypeHint hint;
  };
  const std::vector<Case> cases = {
      {R"({"type":"assistant","message":{}})", TypeHint::kAssistant},
      {R"({"a":{"type":"assistant"},"type":"user"})", TypeHint::kOther},  // nested keys do not count
      {R"({"message":{"content":"x\"}"},"type":"assistant"})", TypeHint::kAssistant},
      {R"({"type":"user","message":{"type":"assistant"}})", TypeHint::kOther},
      {R"({"type":"user","type":"assistant"})", TypeHint::kOther},  // the first key wins
      {R"({"type":null})", TypeHint::kOther},
      {R"({"type":5})", TypeHint::kOther},
      {R"({})", TypeHint::kOther},
      {R"([1,2])", TypeHint::kOther},
      {"\xEF\xBB\xBF {\"type\" : \"assistant\"}", TypeHint::kAssistant},
      {R"({"typ\u0065":"assistant"})", TypeHint::kUnknown},  // an escaped key needs the decoder
      {R"({"type":"assist\u0061nt"})", TypeHint::kUnknown},
      {R"({"type":"assistant)", TypeHint::kUnknown},
      {R"({"a":[1,{"b":"]"}],"type":"assistant"})", TypeHint::kAssistant},
      {R"({"a":"\\","type":"assistant"})", TypeHint::kAssistant},  // an escaped backslash ends the string
  };
  for (const auto& c : cases) EXPECT_EQ(topLevelTypeHint(c.line), c.hint) << c.line;
}

TEST(ByteSearchTest, NameSearchFindsTheWordOrAnEscapeAcrossVectorBoundaries) {
  for (size_t pad = 0; pad < 80; ++pad) {
    std::string filler(pad, 'A');
    EXPECT_TRUE(mayNameAssistant(filler + "\"assistant\"" + filler)) << pad;
    EXPECT_TRUE(mayNameAssistant(filler + "\\u0061" + filler)) << pad;
    EXPECT_FALSE(mayNameAssistant(filler + "\"assistan\"" + filler)) << pad;
    EXPECT_FALSE(mayNameAssistant(filler + "assistant" + filler)) << pad;
  }
}

// Whatever the line, the first pass may skip it only when the decoder would
// not read it as an assistant line.
TEST(ByteSearchTest, NeverSkipsALineTheDecoderReadsAsAssistant) {
  const std::vector<std::string> seeds = {
      R"({"parentUuid":null,"cwd":"/w","type":"assistant","message":{"content":[{"type":"text","text":"hi"}]},"requestId":"r"})",
      R"({"message":{"model":"m","content":"a \"quoted\" word"},"requestId":"r","type":"assistant","uuid":"u"})",
      R"({"type":"user","message":{"content":[{"type":"tool_result","content":"x"}]}})",
  };
  std::mt19937 rng(7);
  const std::string alphabet = "\"\\{}[],: au0123456789typesintAST\xC3\xA9";
  TranscriptLineDecoder decoder;
  RawTranscriptLine raw;
  int assistants = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string line = seeds[rng() % seeds.size()];
    for (int edits = rng() % 4; edits > 0; --edits) {
      size_t at = rng() % line.size();
      switch (rng() % 3) {
        case 0: line[at] = alphabet[rng() % alphabet.size()]; break;
        case 1: line.erase(at, 1); break;
        default: line.insert(at, 1, alphabet[rng() % alphabet.size()]); break;
      }
    }
    if (decoder.decode(line, false, &raw) && raw.type == "assistant") {
      ++assistants;
      EXPECT_TRUE(mayBeAssistantLine(line)) << line;
    }
  }
  EXPECT_GT(assistants, 1000);
}

}  // namespace
}  // namespace ostler
