#include "daemon/feed/agents_by_model_aggregate.h"

#include <algorithm>
#include <map>

#include "daemon/feed/json_fields.h"

namespace ostler {

nlohmann::json toJson(const FeedAgentsByModelEntry& v) { return {{"model", v.model}, {"count", v.count}}; }

FeedAgentsByModelEntry feedAgentsByModelEntryFromJson(const nlohmann::json& j) {
  using namespace JsonFields;
  object(j, "FeedAgentsByModelEntry");
  return {requireString(j, "model"), requireInt(j, "count")};
}

namespace AgentsByModelAggregate {

std::vector<FeedAgentsByModelEntry> aggregate(const std::vector<std::string>& models,
                                              const std::function<double(const std::string&)>& listInputPrice) {
  std::map<std::string, int64_t> counts;
  for (const auto& m : models) ++counts[m];
  struct Row {
    FeedAgentsByModelEntry entry;
    double price = 0;
  };
  std::vector<Row> families;
  for (const auto& [name, count] : counts)
    if (name != kPending && name != kUnrecognized) families.push_back({{name, count}, listInputPrice(name)});
  std::sort(families.begin(), families.end(), [](const Row& a, const Row& b) {
    if (a.entry.count != b.entry.count) return a.entry.count > b.entry.count;
    if (a.price != b.price) return a.price > b.price;
    return a.entry.model < b.entry.model;
  });
  std::vector<FeedAgentsByModelEntry> out;
  out.reserve(counts.size());
  for (auto& row : families) out.push_back(std::move(row.entry));
  for (const char* tail : {kPending, kUnrecognized})
    if (auto it = counts.find(tail); it != counts.end()) out.push_back({it->first, it->second});
  return out;
}

}  // namespace AgentsByModelAggregate
}  // namespace ostler
