// List rates and every cost formula. Rates are dollars per million tokens;
// money is a double, never rounded while it accumulates.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

// Token counts of one turn.
struct TurnUsage {
  int64_t input = 0;      // uncached input
  int64_t output = 0;     // output
  int64_t cacheRead = 0;  // read from the prompt cache
  int64_t cache5m = 0;    // written to the five-minute cache
  int64_t cache1h = 0;    // written to the one-hour cache

  friend bool operator==(const TurnUsage&, const TurnUsage&) = default;
};

// Dollars per million tokens.
struct PricingRate {
  double input = 0;
  double output = 0;
  double cacheRead = 0;
  double write5m = 0;
  double write1h = 0;

  friend bool operator==(const PricingRate&, const PricingRate&) = default;
};

struct ResolvedRate {
  PricingRate rate;
  bool isUnknown = false;  // priced at the opus row for want of a match
  bool isFree = false;     // no API call: empty model or "<synthetic>"
};

struct PricingTable {
  std::map<std::string, PricingRate, std::less<>> rates;  // model prefix to rate
  std::string note;                                       // shown on the receipt

  // The built-in table, made once per process.
  [[nodiscard]] static const PricingTable& defaultTable();

  // Reads a table from a JSON file: {"rates": {prefix: {input, output,
  // cacheRead, write5m, write1h}}, "note": "..."}; every key is required.
  [[nodiscard]] static Result<PricingTable> load(FileSystem& fs, const std::string& path);

  struct Match {
    std::string_view prefix;
    PricingRate rate;
  };
  // The row whose key is the longest case-sensitive prefix of `model`.
  [[nodiscard]] std::optional<Match> match(std::string_view model) const;

  // The "claude-sonnet" row by exact key, else the default table's.
  [[nodiscard]] const PricingRate& sonnetRate() const;
};

[[nodiscard]] ResolvedRate resolveRate(std::string_view model, const PricingTable& table);

// The rate of the model priced last, kept for the next: consecutive lines
// nearly always share a model, and matching walks the whole table. One per
// reader; every call must pass the same table.
class ModelRateCache {
 public:
  // The rate of `model`; `changed()` then tells whether `model` differs from
  // the one asked for before.
  [[nodiscard]] const ResolvedRate& resolve(std::string_view model, const PricingTable& table) {
    changed_ = !has_ || model != model_;
    if (changed_) {
      model_.assign(model);
      rate_ = resolveRate(model, table);
      has_ = true;
    }
    return rate_;
  }
  [[nodiscard]] bool changed() const { return changed_; }

 private:
  std::string model_;
  ResolvedRate rate_;
  bool has_ = false;
  bool changed_ = false;
};

namespace CostMath {

struct W1Composition {
  double inputUSD = 0;
  double cacheWriteUSD = 0;
};

// Tokens in the prompt: input, cache reads and both cache writes.
[[nodiscard]] int64_t context(const TurnUsage& u);
[[nodiscard]] double totalCost(const TurnUsage& u, const PricingRate& r);
[[nodiscard]] double promptCost(const TurnUsage& u, const PricingRate& r);
[[nodiscard]] double outputCost(const TurnUsage& u, const PricingRate& r);
// The part of the context past 100,000 tokens, as a fraction of it.
[[nodiscard]] double share(const TurnUsage& u);
[[nodiscard]] W1Composition w1Composition(const TurnUsage& u, const PricingRate& r);
[[nodiscard]] double w1(const TurnUsage& u, const PricingRate& r);
[[nodiscard]] double carriedContextReadUSD(const TurnUsage& u, const PricingRate& r);
// The premium of rewriting an expired cache over reading it.
[[nodiscard]] double w4(const TurnUsage& u, const PricingRate& r, bool gap5mQualifies, bool gap1hQualifies);

}  // namespace CostMath

// Token counts summed across lines, held at the ends of the 64-bit range
// rather than wrapping: every count of a line is bounded, but a sum over a
// fabricated tree of millions of them is not.
[[nodiscard]] inline int64_t addTokens(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? INT64_MAX : INT64_MIN;
}

// Multiplies by 1e6, rounds halves away from zero, divides.
[[nodiscard]] double roundUSD(double usd);

}  // namespace ostler
