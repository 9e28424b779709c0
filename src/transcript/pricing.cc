#include "transcript/pricing.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace ostler {

const PricingTable& PricingTable::defaultTable() {
  static const PricingTable table = [] {
    PricingTable t;
    t.rates = {
        {"claude-fable", {10.0, 50.0, 1.0, 12.5, 20.0}},
        {"claude-opus", {5.0, 25.0, 0.5, 6.25, 10.0}},
        {"claude-sonnet", {3.0, 15.0, 0.3, 3.75, 6.0}},
        {"claude-sonnet-5", {2.0, 10.0, 0.2, 2.5, 4.0}},
        {"claude-haiku", {1.0, 5.0, 0.1, 1.25, 2.0}},
    };
    t.note =
        "priced at Anthropic API list rates; for subscription users this is the list-rate value consumed, "
        "not cash paid; pricing table v2, 2026-08-17, adds sonnet-5 row";
    return t;
  }();
  return table;
}

Result<PricingTable> PricingTable::load(FileSystem& fs, const std::string& path) {
  auto text = readWholeFile(fs, path);
  if (!text) return text.error();
  try {
    auto j = nlohmann::json::parse(text.value());
    PricingTable t;
    t.note = j.at("note").get<std::string>();
    // A list of rates would iterate too, keyed by index; the rates are a map.
    const auto& rates = j.at("rates");
    if (!rates.is_object()) return Error{path + ": rates is not an object"};
    for (const auto& [prefix, r] : rates.items()) {
      t.rates[prefix] = PricingRate{r.at("input").get<double>(), r.at("output").get<double>(),
                                    r.at("cacheRead").get<double>(), r.at("write5m").get<double>(),
                                    r.at("write1h").get<double>()};
    }
    return t;
  } catch (const nlohmann::json::exception& e) {
    return Error{path + ": " + e.what()};
  }
}

std::optional<PricingTable::Match> PricingTable::match(std::string_view model) const {
  std::optional<Match> best;
  for (const auto& [prefix, rate] : rates) {
    if (model.size() >= prefix.size() && model.compare(0, prefix.size(), prefix) == 0 &&
        (!best || prefix.size() > best->prefix.size()))
      best = Match{prefix, rate};
  }
  return best;
}

const PricingRate& PricingTable::sonnetRate() const {
  auto it = rates.find("claude-sonnet");
  if (it != rates.end()) return it->second;
  return defaultTable().rates.at("claude-sonnet");
}

ResolvedRate resolveRate(std::string_view model, const PricingTable& table) {
  if (model.empty() || model == "<synthetic>") return {PricingRate{}, false, true};
  if (auto m = table.match(model)) return {m->rate, false, false};
  auto it = table.rates.find("claude-opus");
  const PricingRate& opus = it != table.rates.end() ? it->second : PricingTable::defaultTable().rates.at("claude-opus");
  return {opus, true, false};
}

namespace CostMath {

int64_t context(const TurnUsage& u) { return u.input + u.cacheRead + u.cache5m + u.cache1h; }

double totalCost(const TurnUsage& u, const PricingRate& r) {
  return (r.input * double(u.input) + r.output * double(u.output) + r.cacheRead * double(u.cacheRead) +
          r.write5m * double(u.cache5m) + r.write1h * double(u.cache1h)) /
         1'000'000.0;
}

double promptCost(const TurnUsage& u, const PricingRate& r) {
  return r.input * double(u.input) / 1e6 + r.cacheRead * double(u.cacheRead) / 1e6 +
         r.write5m * double(u.cache5m) / 1e6 + r.write1h * double(u.cache1h) / 1e6;
}

double outputCost(const TurnUsage& u, const PricingRate& r) { return r.output * double(u.output) / 1e6; }

double share(const TurnUsage& u) {
  int64_t c = context(u);
  if (c <= 100'000) return 0;
  return double(c - 100'000) / double(c);
}

W1Composition w1Composition(const TurnUsage& u, const PricingRate& r) {
  double s = share(u);
  return {r.input * double(u.input) / 1e6 * s,
          (r.write5m * double(u.cache5m) + r.write1h * double(u.cache1h)) / 1e6 * s};
}

double w1(const TurnUsage& u, const PricingRate& r) {
  W1Composition c = w1Composition(u, r);
  return c.inputUSD + c.cacheWriteUSD;
}

double carriedContextReadUSD(const TurnUsage& u, const PricingRate& r) {
  return share(u) * (r.cacheRead * double(u.cacheRead) / 1e6);
}

double w4(const TurnUsage& u, const PricingRate& r, bool gap5mQualifies, bool gap1hQualifies) {
  if (u.cache5m + u.cache1h < 50'001) return 0;
  double total = 0;
  if (gap5mQualifies && u.cache5m >= 1) total += (r.write5m - r.cacheRead) * double(u.cache5m) / 1e6;
  if (gap1hQualifies && u.cache1h >= 1) total += (r.write1h - r.cacheRead) * double(u.cache1h) / 1e6;
  return total;
}

}  // namespace CostMath

double roundUSD(double usd) { return std::round(usd * 1'000'000.0) / 1'000'000.0; }

}  // namespace ostler
