#include "daemon/feed_windows.h"

#include <gtest/gtest.h>

namespace ostler {
namespace {

TEST(FeedWindowsTest, OptionalKeysAreLeftOutAndEverythingRoundTrips) {
  nlohmann::json empty = toJson(FeedWindows::empty());
  EXPECT_EQ(empty.dump(),
            R"({"session":{"burn_value":0.0,"tokens":0},"week":{"burn_value":0.0,"tokens":0},)"
            R"("week_top_model":{"burn_value":0.0,"tokens":0}})");

  FeedWindows w;
  w.session = {1.5, 10, "2026-03-10T10:00:00.000Z", "resets 3pm", 2.25, 20,
               FeedAuthoritativePct{91.0, "2026-03-10T11:00:00.000Z"}, true};
  w.week.lowest_cutoff_observed = 4.0;
  w.month = FeedMonthWindow{3.0, 30, "2026-03-01T00:00:00.000Z", std::nullopt, std::nullopt};
  nlohmann::json j = toJson(w);
  EXPECT_FALSE(j["week"].contains("anchor"));
  EXPECT_FALSE(j["month"].contains("lowest_cutoff_observed"));
  EXPECT_EQ(j["session"]["authoritative_pct"]["sampled_at"], "2026-03-10T11:00:00.000Z");
  auto back = feedWindowsFromJson(j);
  ASSERT_TRUE(back.ok()) << back.error().message;
  EXPECT_EQ(back.value(), w);

  FeedDiagnosticsExclusions x{{1, 0.5}, {2, 0.25}, {3, 0}, {0, 0}};
  auto xBack = feedDiagnosticsExclusionsFromJson(toJson(x));
  ASSERT_TRUE(xBack.ok());
  EXPECT_EQ(xBack.value(), x);
  EXPECT_TRUE(toJson(x).contains("dedup_refusal"));
}

TEST(FeedWindowsTest, DecodingIsStrict) {
  nlohmann::json j = toJson(FeedWindows::empty());
  auto broken = [&](auto change) {
    nlohmann::json v = j;
    change(v);
    return !feedWindowsFromJson(v).ok();
  };
  EXPECT_TRUE(broken([](nlohmann::json& v) { v.erase("week"); }));
  EXPECT_TRUE(broken([](nlohmann::json& v) { v["session"]["tokens"] = 1.5; }));
  EXPECT_TRUE(broken([](nlohmann::json& v) { v["session"]["near_limit"] = "yes"; }));
  EXPECT_TRUE(broken([](nlohmann::json& v) { v["month"] = {{"burn_value", 1.0}, {"tokens", 1}}; }));
  EXPECT_TRUE(broken([](nlohmann::json& v) { v = nlohmann::json::array(); }));
  EXPECT_FALSE(broken([](nlohmann::json& v) { v["session"]["anchor"] = nullptr; }));
  EXPECT_FALSE(feedDiagnosticsExclusionsFromJson({{"timestamp_gate", {{"count", 1}}}}).ok());
}

}  // namespace
}  // namespace ostler
