#include "daemon/burn_event.h"

#include "daemon/json_fields.h"

namespace ostler {

nlohmann::json toJson(const BurnEvent& e) {
  return {{"timestamp", JsonFields::referenceSeconds(e.timestamp)},
          {"costUSD", e.costUSD},
          {"isFableFamily", e.isFableFamily},
          {"tokens", e.tokens}};
}

BurnEvent burnEventFromJson(const nlohmann::json& j) {
  using namespace JsonFields;
  object(j, "BurnEvent");
  return {requireInstant(j, "timestamp"), requireDouble(j, "costUSD"), requireBool(j, "isFableFamily"),
          requireInt(j, "tokens")};
}

}  // namespace ostler
