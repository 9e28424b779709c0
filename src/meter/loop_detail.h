// The media loop detail as it leaves the engine: a JSON list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ostler {

// How a media loop leaves the engine.
struct MediaLoopDetailRecord {
  std::string sessionId;
  std::string project;
  int64_t images = 0;
  double raw_usd = 0;
  double kept_usd = 0;
  std::string first_image_timestamp;
  std::string last_image_timestamp;
  int64_t file_count = 0;
  friend bool operator==(const MediaLoopDetailRecord&, const MediaLoopDetailRecord&) = default;
};

// Pretty-printed JSON list with sorted keys and a final line feed.
[[nodiscard]] std::string encodeLoopDetailJSON(const std::vector<MediaLoopDetailRecord>& records);

}  // namespace ostler
