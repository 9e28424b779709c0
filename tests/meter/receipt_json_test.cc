#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "meter/receipt.h"
#include "support/transcript_tree.h"

namespace ostler {
namespace {

using namespace testing;
using testing::json;  // not ostler::json

// A receipt with something in every list and section: images then a turn
// past 100k of context, a dump re-read after a switch to sonnet, an expired
// cache on an unknown model, a compaction, and repeated commands in a
// subagent.
Receipt populatedReceipt() {
  const std::string opus = "claude-opus-4-5";
  std::vector<json> lines = {user("please look at the screenshots", at(0))};
  for (int i = 0; i < 5; ++i) lines.push_back(user(json::array({imageBlock(4'003)}), at(1 + i)));
  lines.push_back(assistant("a1", opus, {.input = 20'000, .output = 900, .cacheRead = 100'000}, at(10),
                            json::array({readFile("r1", "/src/a.txt")})));
  lines.push_back(user(json::array({toolResult("r1", std::string(60'000, 'x'))}), at(11)));
  lines.push_back(assistant("a2", "claude-sonnet-4-5", {.output = 900, .cacheRead = 100'000, .cache5m = 60'000},
                            at(20), json::array({readFile("r2", "/src/a.txt")})));
  lines.push_back(user(json::array({toolResult("r2", std::string(100, 'x'))}), at(21)));
  lines.push_back(assistant("a3", "gpt-4o", {.output = 900, .cacheRead = 30'000, .cache5m = 60'000}, at(4'000)));
  lines.push_back(compactBoundary("c1", 150'000, 9'000, at(4'100)));
  lines.push_back(json{{"type", 5}});  // fails to decode
  Tree tree;
  tree.main("-home-dev-shop", "aaaaaaaa-1", lines);
  tree.subagent("-home-dev-shop", "aaaaaaaa-1", "agent-1",
                {assistant("s1", opus, {.output = 5'000}, at(30), json::array({bash("b1", "echo 1")})),
                 assistant("s2", opus, {.output = 5'000}, at(31), json::array({bash("b2", "echo 2")})),
                 assistant("s3", opus, {.output = 5'000}, at(32), json::array({bash("b3", "echo 3")}))});
  return tree.run();
}

void expectNoNulls(const json& j, const std::string& where) {
  EXPECT_FALSE(j.is_null()) << where;
  if (j.is_object())
    for (const auto& [key, value] : j.items()) expectNoNulls(value, where + "/" + key);
  if (j.is_array())
    for (size_t i = 0; i < j.size(); ++i) expectNoNulls(j[i], where + "/" + std::to_string(i));
}

// The empty tree's receipt is met key for key among the reference receipts;
// here, its layout, which those compare only after parsing.
TEST(ReceiptJsonTest, PrettyPrintedWithSortedKeysAndTheSameForAMissingRoot) {
  Tree tree;
  testing::writeFile(tree.root() / "-p" / "notes.txt", "not a transcript");
  const std::string text = encodeReceiptJSON(tree.run());
  EXPECT_EQ(text, json::parse(text).dump(2) + "\n");
  MeterOptions missing;
  missing.root = (tree.root() / "missing").string();
  EXPECT_EQ(encodeReceiptJSON(tree.run(missing)), text);
}

TEST(ReceiptJsonTest, RoundTripsAPopulatedReceiptAndLeavesAbsentKeysOut) {
  Receipt r = populatedReceipt();
  // Every list and section holds something, so the round trip covers it.
  EXPECT_FALSE(r.by_model.empty() || r.by_project.empty() || r.by_day.empty() || r.top_sessions.empty() ||
               r.flags.unknown_models.empty() || r.mac_first.media_loops.loops.empty() ||
               r.switch_tax->top_switches.empty() || r.auto_compactions->top_events.empty());
  for (const auto& c : r.waste.categories) EXPECT_FALSE(c.detail_lines.empty()) << c.key;
  for (const auto& c : r.mac_first.categories) EXPECT_FALSE(c.detail_lines.empty()) << c.key;
  EXPECT_EQ(r.flags.skipped_lines, 1);
  auto decoded = decodeReceipt(json::parse(encodeReceiptJSON(r)));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(decoded.value(), r);
  expectNoNulls(json(r), "");

  r.typed_share.reset();
  r.switch_tax.reset();
  r.auto_compactions.reset();
  r.waste.categories[0].detail_lines = {{"a line", 1.0, std::nullopt}};
  const json j = r;
  expectNoNulls(j, "");
  for (const char* key : {"typed_share", "switch_tax", "auto_compactions"}) EXPECT_FALSE(j.contains(key)) << key;
  EXPECT_EQ(j["waste"]["categories"][0]["detail_lines"][0], (json{{"text", "a line"}, {"usd", 1.0}}));
  for (const auto& c : j["waste"]["categories"]) EXPECT_FALSE(c.contains("session_attribution_note"));
  EXPECT_FALSE(j["mac_first"]["categories"][2].contains("session_attribution_note"));
}

// Only the tests read receipts back, by three rules: a key that older
// receipts lack may be missing or null and takes its default; any other key
// is required, with its type; a count is a whole number in the signed range
// and a list an array.
TEST(ReceiptJsonTest, DecodesOlderReceiptsAndRefusesBrokenOnes) {
  const Receipt r = populatedReceipt();
  json old = r;
  old["totals"].erase("sessions_context_over_100k");
  old["flags"]["distinct_request_ids"] = nullptr;
  for (auto& c : old["waste"]["categories"]) {
    for (const char* key : {"sessions_distinct", "session_attribution_note"}) c.erase(key);
    for (auto& d : c["detail_lines"]) d.erase("session_id");
  }
  old["auto_compactions"].erase("top_events");
  for (const char* key : {"typed_share", "switch_tax"}) old.erase(key);
  Receipt expected = r;
  expected.totals.sessions_context_over_100k = expected.flags.distinct_request_ids = 0;
  for (auto& c : expected.waste.categories) {
    c.sessions_distinct = 0;
    c.session_attribution_note.reset();
    for (auto& d : c.detail_lines) d.session_id.reset();
  }
  expected.auto_compactions->top_events.clear();
  expected.typed_share.reset();
  expected.switch_tax.reset();
  auto decoded = decodeReceipt(old);
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(decoded.value(), expected);

  const auto refused = [&r](const char* pointer, const std::optional<json>& value) {
    json j = r;
    const json::json_pointer p(pointer);
    if (value) j[p] = *value;
    else j[p.parent_pointer()].erase(p.back());
    return !decodeReceipt(j).ok();
  };
  for (const char* pointer : {"/totals/turns", "/mac_first/categories/1/detail_lines/0/usd"}) {
    EXPECT_TRUE(refused(pointer, std::nullopt)) << "without " << pointer;
    EXPECT_TRUE(refused(pointer, json::object({{"x", 1}}))) << "mistyped " << pointer;
  }
  for (const json& bad : {json(2.5), json(5.0), json(9'223'372'036'854'775'808ULL)})
    EXPECT_TRUE(refused("/flags/distinct_request_ids", bad)) << bad.dump();  // never truncated or wrapped
  EXPECT_TRUE(refused("/mac_first/categories/2/detail_lines", json()));     // null is no empty list

  // The largest count fits; a dollar figure may be written without a fraction.
  json whole = r;
  whole["/totals/turns"_json_pointer] = 9'223'372'036'854'775'807LL;
  whole["/fair_usd"_json_pointer] = 3;
  decoded = decodeReceipt(whole);
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(decoded.value().totals.turns, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(decoded.value().fair_usd, 3.0);
}

}  // namespace
}  // namespace ostler
