#include "daemon/engine/today_share.h"

#include "transcript/pricing.h"

namespace ostler::TodayShare {

std::optional<std::string> modelFamily(std::string_view model) {
  static constexpr std::string_view kFamilies[] = {"claude-fable", "claude-opus", "claude-sonnet", "claude-haiku"};
  for (std::string_view prefix : kFamilies)
    if (model.substr(0, prefix.size()) == prefix) return std::string(prefix.substr(7));
  return std::nullopt;
}

double avoidableShare(double avoidableUSD, double spentUSD) {
  if (!(spentUSD > 0)) return 0;
  return roundUSD(avoidableUSD / spentUSD);
}

AvoidableShareSplit avoidableShareSplit(double macFirstUSD, double wasteUSD, double spentUSD) {
  if (!(spentUSD > 0)) return {};
  return {roundUSD(macFirstUSD / spentUSD), roundUSD(wasteUSD / spentUSD)};
}

}  // namespace ostler::TodayShare
