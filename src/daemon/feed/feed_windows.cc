#include "daemon/feed/feed_windows.h"

#include "daemon/feed/json_fields.h"

namespace ostler {
namespace {

using namespace JsonFields;

template <typename T>
void putOptional(nlohmann::json& j, const char* key, const std::optional<T>& v) {
  if (v) j[key] = *v;
}

FeedAuthoritativePct decodeAuthoritativePct(const nlohmann::json& j) {
  object(j, "authoritative_pct");
  return {requireDouble(j, "value"), requireString(j, "sampled_at")};
}

FeedWindow decodeWindow(const nlohmann::json& j) {
  object(j, "FeedWindow");
  FeedWindow w;
  w.burn_value = requireDouble(j, "burn_value");
  w.tokens = requireInt(j, "tokens");
  w.anchor = optionalString(j, "anchor");
  w.resets_note = optionalString(j, "resets_note");
  w.lowest_cutoff_observed = optionalDouble(j, "lowest_cutoff_observed");
  w.lowest_cutoff_observed_tokens = optionalInt(j, "lowest_cutoff_observed_tokens");
  if (const auto* v = find(j, "authoritative_pct")) w.authoritative_pct = decodeAuthoritativePct(*v);
  w.near_limit = optionalBool(j, "near_limit");
  return w;
}

FeedMonthWindow decodeMonthWindow(const nlohmann::json& j) {
  object(j, "FeedMonthWindow");
  FeedMonthWindow m;
  m.burn_value = requireDouble(j, "burn_value");
  m.tokens = requireInt(j, "tokens");
  m.anchor = requireString(j, "anchor");
  m.lowest_cutoff_observed = optionalDouble(j, "lowest_cutoff_observed");
  m.lowest_cutoff_observed_tokens = optionalInt(j, "lowest_cutoff_observed_tokens");
  return m;
}

FeedDiagnosticsExclusionTally decodeTally(const nlohmann::json& j, const char* key) {
  const nlohmann::json& t = object(require(j, key), key);
  return {requireInt(t, "count"), requireDouble(t, "dollars_usd")};
}

template <typename T, typename Decode>
Result<T> guarded(Decode decode) {
  try {
    return decode();
  } catch (const DecodeError& e) {
    return Error{e.what()};
  } catch (const nlohmann::json::exception& e) {
    return Error{e.what()};
  }
}

}  // namespace

nlohmann::json toJson(const FeedAuthoritativePct& v) { return {{"value", v.value}, {"sampled_at", v.sampled_at}}; }

nlohmann::json toJson(const FeedWindow& v) {
  nlohmann::json j = {{"burn_value", v.burn_value}, {"tokens", v.tokens}};
  putOptional(j, "anchor", v.anchor);
  putOptional(j, "resets_note", v.resets_note);
  putOptional(j, "lowest_cutoff_observed", v.lowest_cutoff_observed);
  putOptional(j, "lowest_cutoff_observed_tokens", v.lowest_cutoff_observed_tokens);
  if (v.authoritative_pct) j["authoritative_pct"] = toJson(*v.authoritative_pct);
  putOptional(j, "near_limit", v.near_limit);
  return j;
}

nlohmann::json toJson(const FeedMonthWindow& v) {
  nlohmann::json j = {{"burn_value", v.burn_value}, {"tokens", v.tokens}, {"anchor", v.anchor}};
  putOptional(j, "lowest_cutoff_observed", v.lowest_cutoff_observed);
  putOptional(j, "lowest_cutoff_observed_tokens", v.lowest_cutoff_observed_tokens);
  return j;
}

nlohmann::json toJson(const FeedWindows& v) {
  nlohmann::json j = {
      {"session", toJson(v.session)}, {"week", toJson(v.week)}, {"week_top_model", toJson(v.week_top_model)}};
  if (v.month) j["month"] = toJson(*v.month);
  return j;
}

nlohmann::json toJson(const FeedDiagnosticsExclusionTally& v) {
  return {{"count", v.count}, {"dollars_usd", v.dollars_usd}};
}

nlohmann::json toJson(const FeedDiagnosticsExclusions& v) {
  return {{"timestamp_gate", toJson(v.timestamp_gate)},
          {"dedup_refusal", toJson(v.dedup_refusal)},
          {"parse_skip", toJson(v.parse_skip)},
          {"other", toJson(v.other)}};
}

Result<FeedWindow> feedWindowFromJson(const nlohmann::json& j) {
  return guarded<FeedWindow>([&] { return decodeWindow(j); });
}

Result<FeedMonthWindow> feedMonthWindowFromJson(const nlohmann::json& j) {
  return guarded<FeedMonthWindow>([&] { return decodeMonthWindow(j); });
}

Result<FeedWindows> feedWindowsFromJson(const nlohmann::json& j) {
  return guarded<FeedWindows>([&] {
    object(j, "FeedWindows");
    FeedWindows w;
    w.session = decodeWindow(require(j, "session"));
    w.week = decodeWindow(require(j, "week"));
    w.week_top_model = decodeWindow(require(j, "week_top_model"));
    if (const auto* m = find(j, "month")) w.month = decodeMonthWindow(*m);
    return w;
  });
}

Result<FeedDiagnosticsExclusions> feedDiagnosticsExclusionsFromJson(const nlohmann::json& j) {
  return guarded<FeedDiagnosticsExclusions>([&] {
    object(j, "FeedDiagnosticsExclusions");
    return FeedDiagnosticsExclusions{decodeTally(j, "timestamp_gate"), decodeTally(j, "dedup_refusal"),
                                     decodeTally(j, "parse_skip"), decodeTally(j, "other")};
  });
}

}  // namespace ostler
