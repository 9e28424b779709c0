// What the meter takes from a decoded line: the words a person typed and the
// size of a tool's output.
#include "meter/meter_line.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ostler {
namespace {

std::optional<std::string> typedText(const std::string& json) {
  static TranscriptLineDecoder decoder;
  RawTranscriptLine line;
  EXPECT_TRUE(decoder.decode(json, false, &line) && decodes(line, kMeterReading)) << json;
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
      {R"([{"type":"text","text":"hi"},{"type":"tool_use","input":"ls"}])", std::nullopt},  // a list the meter drops
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

TEST(MeterLineTest, AToolResultMeasuresTheBytesOfItsText) {
  const auto bytes = [](RawToolResultContent::Kind kind, std::string_view text,
                        std::vector<std::optional<std::string_view>> blocks) {
    RawToolResultContent c{kind, text, {}};
    for (auto b : blocks) c.blocks.push_back({b});
    return toolResultBytes(c);
  };
  using Kind = RawToolResultContent::Kind;
  EXPECT_EQ(bytes(Kind::kText, "\xC3\xA9\xE2\x82\xAC", {}), 5);  // UTF-8 bytes, not characters
  EXPECT_EQ(bytes(Kind::kBlocks, "", {"ab", std::nullopt, "cde"}), 5);  // a block without text measures 0
  EXPECT_EQ(bytes(Kind::kOther, "ignored", {"ignored"}), 0);
  EXPECT_EQ(toolResultBytes(std::nullopt), 0);
}

}  // namespace
}  // namespace ostler
