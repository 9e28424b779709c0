#include "meter/loop_detail.h"

#include <nlohmann/json.hpp>

namespace ostler {

std::string encodeLoopDetailJSON(const std::vector<MediaLoopDetailRecord>& records) {
  nlohmann::json a = nlohmann::json::array();
  for (const auto& r : records)
    a.push_back({{"sessionId", r.sessionId},
                 {"project", r.project},
                 {"images", r.images},
                 {"raw_usd", r.raw_usd},
                 {"kept_usd", r.kept_usd},
                 {"first_image_timestamp", r.first_image_timestamp},
                 {"last_image_timestamp", r.last_image_timestamp},
                 {"file_count", r.file_count}});
  return a.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace ostler
