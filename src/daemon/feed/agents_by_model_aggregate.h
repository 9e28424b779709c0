// How many subagents run on which model family, for the feed's live figures.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostler {

struct FeedAgentsByModelEntry {
  std::string model;  // a family, "pending" or "unrecognized"
  int64_t count = 0;

  friend bool operator==(const FeedAgentsByModelEntry&, const FeedAgentsByModelEntry&) = default;
};

[[nodiscard]] nlohmann::json toJson(const FeedAgentsByModelEntry& v);
// Throws JsonFields::DecodeError.
[[nodiscard]] FeedAgentsByModelEntry feedAgentsByModelEntryFromJson(const nlohmann::json& j);

namespace AgentsByModelAggregate {

inline constexpr const char* kPending = "pending";            // no assistant line yet
inline constexpr const char* kUnrecognized = "unrecognized";  // a model of no known family

// One entry per distinct name of `models`. Families first: the busiest on
// top, then the dearer by `listInputPrice`, then by name; "pending" and then
// "unrecognized" last. Empty for an empty input.
[[nodiscard]] std::vector<FeedAgentsByModelEntry> aggregate(
    const std::vector<std::string>& models, const std::function<double(const std::string&)>& listInputPrice);

}  // namespace AgentsByModelAggregate
}  // namespace ostler
