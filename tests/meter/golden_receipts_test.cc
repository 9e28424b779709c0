// The reference receipts beside the checkout: every one must be met, JSON
// and text, but for the instant it was made.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "meter/meter_engine.h"
#include "meter/plain_text_receipt.h"
#include "support/fake_clock.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using nlohmann::json;

struct GoldenCase {
  std::string tree;     // under golden/, empty for an empty root
  std::string receipt;  // file stem under golden/
  std::optional<std::string> since, until, sinceInstant, untilInstant;
};

// Numbers agree within one unit of the sixth decimal (the order of a sum);
// everything else exactly.
void expectSameJson(const json& actual, const json& expected) {
  const json got = actual.flatten(), want = expected.flatten();
  for (const auto& [path, value] : want.items()) {
    if (!got.contains(path)) {
      ADD_FAILURE() << path << " is missing";
    } else if (value.is_number() && got[path].is_number() && (value.is_number_float() || got[path].is_number_float())) {
      EXPECT_NEAR(got[path].get<double>(), value.get<double>(), 1.01e-6) << path;
    } else {
      EXPECT_EQ(got[path], value) << path;
    }
  }
  for (const auto& [path, value] : got.items())
    if (!want.contains(path)) ADD_FAILURE() << path << " is not expected";
}

TEST(GoldenReceiptsTest, EveryReferenceReceiptIsMet) {
  const auto golden = testing::sharedDir() / "golden";
  if (!std::filesystem::is_directory(golden)) GTEST_SKIP() << "no reference receipts beside the checkout";
  const std::vector<GoldenCase> cases = {
      {"", "empty/receipt", {}, {}, {}, {}},
      {"small-1/projects", "small-1/receipt", {}, {}, {}, {}},
      {"small-1/projects", "small-1/receipt-nov5-nov12", {}, {}, "2026-11-05T00:00:00.000Z",
       "2026-11-12T00:00:00.000Z"},
      {"small-2/projects", "small-2/receipt", {}, {}, {}, {}},
      {"small-2/projects", "small-2/receipt-since-2026-11-01-until-2026-11-10", "2026-11-01", "2026-11-10", {}, {}},
  };
  testing::TempDir emptyRoot;
  const testing::FakeClock clock(1'795'392'000'000);  // 2026-11-23T00:00:00Z, as the references were made
  for (const auto& c : cases) {
    SCOPED_TRACE(c.receipt);
    MeterOptions o;
    o.root = c.tree.empty() ? emptyRoot.str() : (golden / c.tree).string();
    o.since = c.since;
    o.until = c.until;
    o.sinceInstant = c.sinceInstant;
    o.untilInstant = c.untilInstant;
    const Receipt receipt = MeterEngine::run(systemFileSystem(), o, nullptr, clock);

    json expected = json::parse(testing::readFile(golden / (c.receipt + ".json")));
    json actual = json::parse(encodeReceiptJSON(receipt));
    expected.erase("generated_at");
    actual.erase("generated_at");
    expectSameJson(actual, expected);

    const auto expectedText = testing::linesOf(testing::readFile(golden / (c.receipt + ".txt")), "Generated ");
    const auto actualText = testing::linesOf(renderPlainTextReceipt(receipt), "Generated ");
    ASSERT_EQ(actualText.size(), expectedText.size());
    for (size_t i = 0; i < expectedText.size(); ++i) EXPECT_EQ(actualText[i], expectedText[i]) << "line " << i + 1;
  }
}

}  // namespace
}  // namespace ostler
