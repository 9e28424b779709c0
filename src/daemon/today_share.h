// How today's figures are split by model family.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostler::TodayShare {

// "fable", "opus", "sonnet" or "haiku" when `model` begins with "claude-"
// and that family's name (tested in this order, case-sensitive); nothing for
// any other model.
[[nodiscard]] std::optional<std::string> modelFamily(std::string_view model);

}  // namespace ostler::TodayShare
