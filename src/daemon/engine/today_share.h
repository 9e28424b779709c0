// How today's figures are split by model family, and what share of the
// day's spend was avoidable.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostler::TodayShare {

// "fable", "opus", "sonnet" or "haiku" when `model` begins with "claude-"
// and that family's name (tested in this order, case-sensitive); nothing for
// any other model.
[[nodiscard]] std::optional<std::string> modelFamily(std::string_view model);

// `avoidableUSD` / `spentUSD` rounded to six places; 0 when spend is not
// above 0. Not capped: the two figures may come from different bases, so
// the share can exceed 1.
[[nodiscard]] double avoidableShare(double avoidableUSD, double spentUSD);

struct AvoidableShareSplit {
  double mac = 0;   // what the Mac could have done, as a share of spend
  double tier = 0;  // what a cheaper use of the model tier would have saved

  friend bool operator==(const AvoidableShareSplit&, const AvoidableShareSplit&) = default;
};

// Each part over `spentUSD`, rounded to six places; both 0 when spend is not
// above 0.
[[nodiscard]] AvoidableShareSplit avoidableShareSplit(double macFirstUSD, double wasteUSD, double spentUSD);

}  // namespace ostler::TodayShare
