// A transcript file, as many lines as the input holds, in a tree of its own
// and a copy among the chat's agents: the meter's receipt, the live engine's
// poll and the heavy pass over it. Whatever the lines say, money is finite
// and never below zero, and the receipt survives its own JSON.
#include <cmath>
#include <string>

#include "daemon/engine/live_engine.h"
#include "daemon/loop/odometer.h"
#include "fuzz_target.h"
#include "meter/meter_engine.h"
#include "meter/plain_text_receipt.h"
#include "meter/receipt.h"
#include "support/fake_file_system.h"
#include "transcript/iso8601.h"

namespace {

constexpr const char* kRoot = "/home/u/.claude/projects";

void requireMoney(double usd, const char* what) { ostler::fuzz::require(std::isfinite(usd) && usd >= 0, what); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostler;
  testing::FakeFileSystem fs;
  const std::string bytes(fuzz::asText(data, size));
  fs.put(std::string(kRoot) + "/-home-u-app/s1.jsonl", bytes);
  fs.put(std::string(kRoot) + "/-home-u-app/s1/subagents/agent-a.jsonl", bytes);

  MeterOptions options;
  options.root = kRoot;
  const Receipt receipt = MeterEngine::run(fs, options);
  requireMoney(receipt.totals.spent_usd, "the receipt's spend");
  (void)renderPlainTextReceipt(receipt);
  auto decoded = decodeReceipt(nlohmann::json::parse(encodeReceiptJSON(receipt)));
  fuzz::require(decoded.ok(), "a receipt reads back from its JSON");

  // 1 December 2026, noon UTC: after most of the stamps a fuzzer writes.
  const InstantMs now = 1'796'126'400'000;
  LiveEngine engine(fs, PricingTable::defaultTable(), "UTC");
  (void)engine.poll(kRoot, now);
  requireMoney(engine.todaySpentUSD(), "the engine's spend today");
  fuzz::require(engine.todayTurns() >= 0, "the engine's turns today");

  const InstantMs boundary = now - 12 * 3'600'000;
  auto bundle = Odometer::compute(fs, kRoot, PricingTable::defaultTable(), boundary, now, true, "UTC");
  fuzz::require(bundle.has_value(), "the heavy pass ends");
  requireMoney(bundle->lifetimeReceipt.totals.spent_usd, "the heavy pass's spend");
  return 0;
}
