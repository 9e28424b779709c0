// The feed's JSON, its lenient reading of older feeds, and the writer.
#include "daemon/feed/feed.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "daemon/feed/feed_writer.h"
#include "line_builder.h"
#include "support/fake_clock.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;
using nlohmann::json;

FeedSession row(const std::string& id) {
  return {id, "proj", 1200, "warm", 0.0045, 0.006, "2026-03-10T10:00:00.000Z", 2, std::nullopt, std::nullopt};
}

// A feed with every optional key filled.
Feed fullFeed() {
  Feed f;
  f.generated_at = "2026-03-10T12:00:00.000Z";
  f.odometer = {12.5, 3.25, 1.0, "2026-02-01T00:00:00.000Z"};
  f.today.spent_usd = 2.5;
  f.today.avoidable_usd = 0.5;
  f.today.turns = 7;
  f.today.tokens_by_family = {{"fable", 0}, {"opus", 900}, {"sonnet", 0}, {"haiku", 0}, {"mystery", 3}};
  f.today.avoidable_share = 0.2;
  f.today.avoidable_share_split = {0.12, 0.08};
  f.today.spent_basis = "windowed";
  f.today.windowed_computed_at = "2026-03-10T11:59:00.000Z";
  f.quota = {"2026-03-10T09:00:00Z", "resets 3pm", "2026-03-10T15:00:00.000Z", "org disabled"};
  FeedSession a = row("a");
  a.prompt_state = FeedPromptState{"warming", 40, 12};
  a.nudge_state = FeedNudgeState{"warning", 31};
  f.sessions = {a, row("b")};
  f.zero_context_sessions = 3;
  f.sessions_all = {a, row("b"), row("c")};
  f.media_loops_active = {{"a", "proj", 6, 0.25, 4000}};
  const FeedAuthoritativePct pct{91.0, "2026-03-10T11:00:00.000Z"};
  f.windows.session = {1.5, 10, "2026-03-10T10:00:00.000Z", "resets 3pm", 2.25, 20, pct, true};
  f.windows.week.lowest_cutoff_observed = 4.0;
  f.windows.month = FeedMonthWindow{3.0, 30, "2026-03-01T00:00:00.000Z", std::nullopt, std::nullopt};
  f.now = {2, 1500, FeedMacAiSessions{4, "past 7 days"},
           std::vector<FeedAgentsByModelEntry>{{"opus", 1}, {"pending", 1}}};
  f.parser_alarm = true;
  f.setup_tax = FeedSetupTax{20'000, 0.1, 0.006, "2026-03-01T00:00:00.000Z", FeedSetupTaxJump{12'000, 8'000}};
  f.diagnostics.equality = FeedDiagnosticsEquality{false, -1.5, "2026-03-10T11:59:00.000Z", 1.0, 4};
  f.diagnostics.persist = FeedDiagnosticsPersist{2, 100, 180};
  f.diagnostics.exclusions = FeedDiagnosticsExclusions{{1, 0.5}, {0, 0}, {2, 0}, {0, 0}};
  f.ledger = FeedLedger{1.5, 2, 4.0};
  return f;
}

TEST(FeedTest, EmptyOptionalKeysAreLeftOutAndDiagnosticsIsAlwaysAnObject) {
  Feed f;
  f.today.spent_basis = "accumulator";
  f.sessions = {row("a")};
  f.parser_alarm = false;  // an alarm that is off is left out rather than written false
  const std::string text = encodeFeedJSON(f);
  EXPECT_EQ(text.find("null"), std::string::npos) << text;
  json j = json::parse(text);
  for (const char* absent : {"/parser_alarm", "/setup_tax", "/ledger", "/now/agents_by_model", "/now/mac_ai_sessions",
                             "/sessions/0/prompt_state", "/today/windowed_computed_at"})
    EXPECT_FALSE(j.contains(json::json_pointer(absent))) << absent;
  EXPECT_EQ(j["diagnostics"], json::object());
  EXPECT_EQ(j["quota"], json::object());
  const json emptyWindow = {{"burn_value", 0.0}, {"tokens", 0}};
  EXPECT_EQ(j["windows"], (json{{"session", emptyWindow}, {"week", emptyWindow}, {"week_top_model", emptyWindow}}));
  // Pretty-printed, keys sorted, one final line feed.
  EXPECT_EQ(text, j.dump(2) + "\n");
}

// Only the tests read feeds back: an older feed's missing sections take
// their empty defaults; anything else missing or mistyped fails.
TEST(FeedTest, OlderFeedsDecodeWithTheEmptyDefaultsAndEverythingElseStrictly) {
  json old = toJson(fullFeed());
  for (const char* section : {"windows", "now", "diagnostics", "sessions_all"}) old.erase(section);
  old["today"] = {{"spent_usd", 1.25}, {"avoidable_usd", 0.5}, {"turns", 3}};
  old["schema"] = "ostler.feed.v-old";
  old["media_loops_active"][0].erase("tokens_so_far");
  auto decoded = decodeFeed(old);
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  Feed expected = fullFeed();
  expected.windows = FeedWindows::empty();
  expected.now = FeedNow{};
  expected.diagnostics = FeedDiagnostics::empty();
  expected.sessions_all.clear();
  expected.today = FeedToday{};
  expected.today.spent_usd = 1.25;
  expected.today.avoidable_usd = 0.5;
  expected.today.turns = 3;
  expected.media_loops_active[0].tokens_so_far = 0;
  EXPECT_EQ(decoded.value(), expected);

  const auto fails = [](const std::function<void(json&)>& change) {
    json j = toJson(fullFeed());
    change(j);
    return !decodeFeed(j).ok();
  };
  EXPECT_TRUE(fails([](json& j) { j.erase("zero_context_sessions"); }));
  EXPECT_TRUE(fails([](json& j) { j["sessions"][0]["context_tokens"] = 1.5; }));
  EXPECT_TRUE(fails([](json& j) { j["windows"]["session"]["near_limit"] = "yes"; }));
  EXPECT_FALSE(fails([](json& j) { j["windows"]["session"]["anchor"] = nullptr; }));
  EXPECT_FALSE(decodeFeedJSON("{\"generated_at\": ").ok());
}

TEST(FeedTest, EveryKeyRoundTripsAndReusedRowsGiveTheSameBytes) {
  Feed f = fullFeed();
  const std::string text = encodeFeedJSON(f);
  EXPECT_EQ(text.find("null"), std::string::npos);
  auto back = decodeFeedJSON(text);
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_EQ(back.value(), f);

  FeedEncoder encoder;
  EXPECT_EQ(encoder.encode(f), text);
  // A changed row, a new one, a vanished one, and a new order.
  f.sessions_all[1].temperature = "cold";
  f.sessions_all[1].project = "with \"quotes\" and\nbreaks";
  f.sessions_all.push_back(row("d"));
  f.sessions_all.erase(f.sessions_all.begin());
  std::swap(f.sessions_all[0], f.sessions_all[1]);
  EXPECT_EQ(encoder.encode(f), encodeFeedJSON(f));
  f.sessions_all.clear();
  EXPECT_EQ(encoder.encode(f), encodeFeedJSON(f));
  f.sessions_all = {row("b")};
  EXPECT_EQ(encoder.encode(f), encodeFeedJSON(f));

  // Rows encoded ahead of a feed whose rows then changed still give the
  // feed's own bytes, the ahead one's rows included when they come back.
  Feed ahead = fullFeed();
  encoder.prepareRows(ahead);
  f.sessions_all = {row("b"), row("d")};
  f.sessions_all[0].temperature = "cold";
  EXPECT_EQ(encoder.encode(f), encodeFeedJSON(f));
  EXPECT_EQ(encoder.encode(ahead), encodeFeedJSON(ahead));
}

TEST(FeedWriterTest, WritesAnOwnerOnlyFileAtMostOncePerIntervalAndAFailedWriteChangesNothing) {
  TempDir dir;
  const auto path = dir.path() / "feed.json";
  testing::writeFile(path, "old");
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  FakeClock clock(at("2026-03-10T12:00:00Z"));
  FeedWriter writer(systemFileSystem(), path.string(), 1.0, clock);
  const InstantMs t0 = clock.nowMs();
  auto first = writer.writeDebounced(fullFeed(), t0);
  ASSERT_TRUE(first.ok() && first.value());
  EXPECT_EQ(writer.lastWriteAt(), t0);
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(decodeFeedJSON(testing::readFile(path)).value(), fullFeed());
  EXPECT_FALSE(writer.writeDebounced(fullFeed(), t0 + 999).value());
  clock.advance(1.0);
  EXPECT_TRUE(writer.writeDebounced(fullFeed(), t0 + 1000).value());
  EXPECT_EQ(writer.lastWriteAt(), t0 + 1000);

  const auto missing = dir.path() / "no-such-folder" / "feed.json";
  FeedWriter orphan(systemFileSystem(), missing.string(), 1.0, clock);
  EXPECT_FALSE(orphan.writeNow(fullFeed()).ok());
  EXPECT_EQ(orphan.lastWriteAt(), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(missing.parent_path()));
}

}  // namespace
}  // namespace ostler
