// What one metering pass is given, and what it reports while it runs.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "transcript/iso8601.h"
#include "platform/clock.h"
#include "transcript/pricing.h"

namespace ostler {

struct MeterOptions {
  std::string root;                         // transcript root
  std::optional<std::string> since;         // "YYYY-MM-DD", inclusive
  std::optional<std::string> until;         // "YYYY-MM-DD", inclusive
  std::optional<std::string> sinceInstant;  // ISO 8601, inclusive; wins over `since`
  std::optional<std::string> untilInstant;  // ISO 8601, exclusive; wins over `until`
  PricingTable pricing = PricingTable::defaultTable();
};

struct MeterProgress {
  int64_t filesProcessed = 0;
  int64_t totalFiles = 0;
  int64_t tokensMetered = 0;
  friend bool operator==(const MeterProgress&, const MeterProgress&) = default;
};

using ProgressCallback = std::function<void(const MeterProgress&)>;

// Drops progress reports that come less than 0.1 s after the previous one.
class ProgressThrottle {
 public:
  explicit ProgressThrottle(const Clock& clock) : clock_(clock) {}
  // Whether a report should go out now; `force` always reports.
  bool shouldReport(bool force);

 private:
  const Clock& clock_;
  bool reported_ = false;
  double last_ = 0;
};

// The bounds of `options`, parsed once per pass.
struct RangeBounds {
  bool hasSinceInstant = false;
  std::optional<InstantMs> sinceInstant;  // absent when it does not parse
  bool hasUntilInstant = false;
  std::optional<InstantMs> untilInstant;
  std::optional<std::string> since;
  std::optional<std::string> until;

  [[nodiscard]] static RangeBounds from(const MeterOptions& options);
  // Whether a line stamped `timestamp` (already parsed as `instant`) counts.
  [[nodiscard]] bool contains(const std::optional<std::string_view>& timestamp,
                              const std::optional<InstantMs>& instant) const;
};

// Whether a line stamped `timestamp` lies within the bounds of `options`.
[[nodiscard]] bool inRange(const std::optional<std::string>& timestamp, const MeterOptions& options);

// The instant of an ISO 8601 timestamp, with or without fractional seconds.
[[nodiscard]] std::optional<InstantMs> parseISO(const std::optional<std::string>& text);
[[nodiscard]] bool isValidInstant(const std::string& text);

}  // namespace ostler
