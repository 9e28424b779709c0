#include "meter/plain_text_receipt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "meter/build_receipt.h"
#include "support/transcript_tree.h"

namespace ostler {
namespace {

Receipt emptyReceipt() { return buildReceipt(GlobalAggregator{}, MeterOptions{}, "2026-11-23T00:00:00Z"); }

bool hasLine(const std::string& text, const std::string& line) {
  const auto lines = testing::linesOf(text);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The line after `line`, or "(none)".
std::string lineAfter(const std::string& text, const std::string& line) {
  const auto lines = testing::linesOf(text);
  auto it = std::find(lines.begin(), lines.end(), line);
  return it == lines.end() || it + 1 == lines.end() ? "(none)" : *(it + 1);
}

TEST(PlainTextReceiptTest, RowJoinsLabelAndValueWithADotLeader) {
  EXPECT_EQ(row("Spent", "$12.34", 42), "Spent" + std::string(31, '.') + "$12.34");
  const std::string sixty(60, 'L');
  EXPECT_EQ(row(sixty, "$1.00", 42), std::string(36, 'L') + ".$1.00");  // cut to leave one dot
  EXPECT_EQ(row(std::string(36, 'L'), "$1.00", 42), std::string(36, 'L') + ".$1.00");
  EXPECT_EQ(row(std::string(35, 'L'), "$1.00", 42), std::string(35, 'L') + "..$1.00");
  const std::string wide(45, '9');
  EXPECT_EQ(row("label", wide, 42), "." + wide);  // the value is never cut
  // Lengths are in characters: an accented letter of two code points is one.
  EXPECT_EQ(row("e\xCC\x81", "$1.00", 42), "e\xCC\x81" + std::string(36, '.') + "$1.00");
  EXPECT_EQ(row(std::string(35, 'L') + "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD" + "tail", "$1.00", 42),
            std::string(35, 'L') + "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD" + ".$1.00");
}

TEST(PlainTextReceiptTest, CategoryBlockShowsThreeDetailsThenACount) {
  Receipt r = emptyReceipt();
  for (int i = 1; i <= 4; ++i) r.waste.categories[1].detail_lines.push_back({"file" + std::to_string(i), 0.5, "s"});
  for (int i = 1; i <= 3; ++i) r.mac_first.categories[2].detail_lines.push_back({"turn " + std::to_string(i), 1.0, "s"});
  const std::string text = renderPlainTextReceipt(r);
  EXPECT_EQ(lineAfter(text, "  file3" + std::string(30, '.') + "$0.50"), "  + 1 more");
  EXPECT_FALSE(hasLine(text, "  file4" + std::string(30, '.') + "$0.50"));
  EXPECT_EQ(lineAfter(text, "  turn 3" + std::string(29, '.') + "$1.00"), "");
  EXPECT_FALSE(hasLine(text, "  + 0 more"));
}

// Every optional block shows in the reference receipts; these are the edges
// where one figure of a block is there and its neighbour is not.
TEST(PlainTextReceiptTest, OptionalLinesFollowTheirFigures) {
  Receipt r = emptyReceipt();
  auto& d = r.waste.diagnostics_raw_usd;
  r.switch_tax->counterfactual_usd = 0.5;  // without a floor the block is gone
  d.whole_session_downshift_usd = 0.2;     // without a dispatch figure only its own pair prints
  std::string text = renderPlainTextReceipt(r);
  EXPECT_EQ(text.find("switch"), std::string::npos);
  EXPECT_EQ(text.find("counterfactual"), std::string::npos);
  EXPECT_EQ(lineAfter(text, "  sessions never downshifted whole...$0.20"), "  see dispatch_downshift_usd above");
  EXPECT_EQ(lineAfter(text, "  see dispatch_downshift_usd above"), "");

  r.switch_tax->floor_usd = 0.1;
  r.switch_tax->counterfactual_usd = 0.0;
  d.dispatch_downshift_usd = 0.3;
  d.carried_dumps_read_usd = 0.75;
  r.waste.total_usd = 1.0;
  r.auto_compactions->event_count = 1;
  for (int i = 0; i < 6; ++i)
    r.top_sessions.push_back({"session" + std::to_string(i) + "-uuid", "shop", 1.0 - i * 0.1, 3, 100});
  text = renderPlainTextReceipt(r);
  EXPECT_TRUE(hasLine(text, row("  switch tax (floor)", "$0.10", 42)));
  EXPECT_EQ(text.find("counting the full cache"), std::string::npos);
  EXPECT_TRUE(hasLine(text, row("counterfactual: dispatch on sonnet", "$0.30", 42)));
  EXPECT_EQ(lineAfter(text, "  see dispatch_downshift_usd above"), "");  // one blank after both pairs
  EXPECT_TRUE(hasLine(text, row("  carried dumps (cache reads)", "$0.75", 42)));
  EXPECT_EQ(text.find("carried context"), std::string::npos);
  EXPECT_FALSE(hasLine(text, row("raw estimate, all 7 (uncapped)", "$0.00", 42)));  // not below the number
  EXPECT_EQ(lineAfter(text, "  1 events, 0 involuntary, 0 voluntary"), "");
  EXPECT_TRUE(hasLine(text, row("shop session4", "$0.60", 42)));
  EXPECT_EQ(text.find("session5"), std::string::npos);  // five top sessions only
}

}  // namespace
}  // namespace ostler
