#include "daemon/cutoff_observation.h"

#include "daemon/json_fields.h"

namespace ostler {

nlohmann::json toJson(const CutoffObservation& o) { return {{"valueUSD", o.valueUSD}, {"tokens", o.tokens}}; }

CutoffObservation cutoffObservationFromJson(const nlohmann::json& j) {
  using namespace JsonFields;
  object(j, "CutoffObservation");
  return {requireDouble(j, "valueUSD"), requireInt(j, "tokens")};
}

}  // namespace ostler
