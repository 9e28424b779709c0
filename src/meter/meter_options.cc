#include "meter/meter_options.h"

#include "transcript/text.h"

namespace ostler {

std::optional<InstantMs> parseISO(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  return ISO8601::parse(*text);
}

bool isValidInstant(const std::string& text) { return ISO8601::parse(text).has_value(); }

RangeBounds RangeBounds::from(const MeterOptions& options) {
  RangeBounds b;
  b.hasSinceInstant = options.sinceInstant.has_value();
  if (b.hasSinceInstant) b.sinceInstant = ISO8601::parse(*options.sinceInstant);
  b.hasUntilInstant = options.untilInstant.has_value();
  if (b.hasUntilInstant) b.untilInstant = ISO8601::parse(*options.untilInstant);
  b.since = options.since;
  b.until = options.until;
  return b;
}

bool RangeBounds::contains(const std::optional<std::string_view>& timestamp,
                           const std::optional<InstantMs>& instant) const {
  if (!timestamp || timestamp->empty()) return true;
  // The date forms compare the timestamp's own calendar date as written.
  auto day = [&]() -> std::optional<std::string_view> {
    std::string_view first10 = text::prefixCharacters(*timestamp, 10);
    if (text::characterCount(first10) < 10) return std::nullopt;
    return first10;
  };
  if (hasSinceInstant) {
    if (sinceInstant && instant && *instant < *sinceInstant) return false;
  } else if (since) {
    if (auto d = day(); d && *d < std::string_view(*since)) return false;
  }
  if (hasUntilInstant) {
    if (!untilInstant || !instant) return true;
    return *instant < *untilInstant;
  }
  if (until) {
    if (auto d = day()) return *d <= std::string_view(*until);
  }
  return true;
}

bool ProgressThrottle::shouldReport(bool force) {
  const double now = clock_.monotonicSeconds();
  if (reported_ && !force && now - last_ < 0.1) return false;
  reported_ = true;
  last_ = now;
  return true;
}

bool inRange(const std::optional<std::string>& timestamp, const MeterOptions& options) {
  std::optional<std::string_view> view;
  if (timestamp) view = *timestamp;
  return RangeBounds::from(options).contains(view, parseISO(timestamp));
}

}  // namespace ostler
