#include "daemon/feed/feed.h"

#include "daemon/feed/json_fields.h"

namespace ostler {
namespace {

using namespace JsonFields;

template <typename T>
void putOptional(nlohmann::json& j, const char* key, const std::optional<T>& v) {
  if (v) j[key] = *v;
}

template <typename T>
nlohmann::json array(const std::vector<T>& rows) {
  nlohmann::json a = nlohmann::json::array();
  for (const auto& r : rows) a.push_back(toJson(r));
  return a;
}

template <typename T, typename Decode>
std::vector<T> decodeArray(const nlohmann::json& v, const char* key, Decode decode) {
  if (!v.is_array()) throw DecodeError(std::string(key) + ": not an array");
  std::vector<T> out;
  out.reserve(v.size());
  for (const auto& row : v) out.push_back(decode(row));
  return out;
}

// Turns a decoder that reports by value into one that throws, so one catch
// serves the whole feed.
template <typename T>
T orThrow(Result<T> r) {
  if (!r.ok()) throw DecodeError(r.error().message);
  return std::move(r).value();
}

nlohmann::json toJsonWithoutInventory(const Feed& v);

FeedOdometer decodeOdometer(const nlohmann::json& j) {
  object(j, "odometer");
  return {requireDouble(j, "spent_usd"), requireDouble(j, "stamp_usd"), requireDouble(j, "mac_first_usd"),
          requireString(j, "since")};
}

FeedToday decodeToday(const nlohmann::json& j) {
  object(j, "today");
  FeedToday t;
  t.spent_usd = requireDouble(j, "spent_usd");
  t.avoidable_usd = requireDouble(j, "avoidable_usd");
  t.turns = requireInt(j, "turns");
  if (const auto* m = find(j, "tokens_by_family")) {
    object(*m, "tokens_by_family");
    for (const auto& [family, tokens] : m->items()) t.tokens_by_family[family] = asInt(tokens, "tokens_by_family");
  }
  t.avoidable_share = optionalDouble(j, "avoidable_share").value_or(0);
  if (const auto* s = find(j, "avoidable_share_split")) {
    object(*s, "avoidable_share_split");
    t.avoidable_share_split = {requireDouble(*s, "mac"), requireDouble(*s, "tier")};
  }
  t.avoidable_basis = optionalString(j, "avoidable_basis").value_or(kAvoidableBasis);
  t.spent_basis = optionalString(j, "spent_basis");
  t.spent_basis_note = optionalString(j, "spent_basis_note").value_or(kSpentBasisNote);
  t.windowed_computed_at = optionalString(j, "windowed_computed_at");
  return t;
}

FeedQuota decodeQuota(const nlohmann::json& j) {
  object(j, "quota");
  return {optionalString(j, "last_limit_event_at"), optionalString(j, "resets_note"),
          optionalString(j, "limited_until"), optionalString(j, "extra_usage_disabled_reason")};
}

FeedNow decodeNow(const nlohmann::json& j) {
  object(j, "now");
  FeedNow n;
  n.active_agents = requireInt(j, "active_agents");
  n.rate_tokens_per_min = requireInt(j, "rate_tokens_per_min");
  if (const auto* m = find(j, "mac_ai_sessions")) {
    object(*m, "mac_ai_sessions");
    n.mac_ai_sessions = FeedMacAiSessions{requireInt(*m, "count"), requireString(*m, "period_label")};
  }
  if (const auto* a = find(j, "agents_by_model"))
    n.agents_by_model = decodeArray<FeedAgentsByModelEntry>(*a, "agents_by_model", feedAgentsByModelEntryFromJson);
  return n;
}

FeedSetupTax decodeSetupTax(const nlohmann::json& j) {
  object(j, "setup_tax");
  FeedSetupTax s;
  s.setup_tokens = requireInt(j, "setup_tokens");
  s.first_turn_cost_usd = requireDouble(j, "first_turn_cost_usd");
  s.steady_state_setup_usd = requireDouble(j, "steady_state_setup_usd");
  s.measured_at = requireString(j, "measured_at");
  if (const auto* jump = find(j, "jump")) {
    object(*jump, "jump");
    s.jump = FeedSetupTaxJump{requireInt(*jump, "delta_tokens"), requireInt(*jump, "previous_tokens")};
  }
  return s;
}

FeedDiagnostics decodeDiagnostics(const nlohmann::json& j) {
  object(j, "diagnostics");
  FeedDiagnostics d;
  if (const auto* e = find(j, "equality")) {
    object(*e, "equality");
    d.equality = FeedDiagnosticsEquality{requireBool(*e, "matches"), requireDouble(*e, "diff_usd"),
                                         requireString(*e, "checked_at"),
                                         optionalDouble(*e, "accumulator_spent_usd"),
                                         optionalInt(*e, "accumulator_turns")};
  }
  if (const auto* p = find(j, "persist")) {
    object(*p, "persist");
    d.persist = FeedDiagnosticsPersist{requireInt(*p, "count_since_start"), requireInt(*p, "bytes_last"),
                                       requireInt(*p, "bytes_since_start")};
  }
  if (const auto* x = find(j, "exclusions")) d.exclusions = orThrow(feedDiagnosticsExclusionsFromJson(*x));
  d.unreadable_files = optionalInt(j, "unreadable_files");
  return d;
}

FeedLedger decodeLedger(const nlohmann::json& j) {
  object(j, "ledger");
  return {requireDouble(j, "month_saved_usd"), requireInt(j, "month_event_count"),
          requireDouble(j, "lifetime_saved_usd")};
}

Feed decode(const nlohmann::json& j) {
  object(j, "Feed");
  Feed f;
  f.generated_at = requireString(j, "generated_at");
  f.odometer = decodeOdometer(require(j, "odometer"));
  f.today = decodeToday(require(j, "today"));
  f.quota = decodeQuota(require(j, "quota"));
  f.sessions = decodeArray<FeedSession>(require(j, "sessions"), "sessions", feedSessionFromJson);
  f.zero_context_sessions = requireInt(j, "zero_context_sessions");
  if (const auto* all = find(j, "sessions_all"))
    f.sessions_all = decodeArray<FeedSession>(*all, "sessions_all", feedSessionFromJson);
  f.media_loops_active = decodeArray<FeedMediaLoopActive>(require(j, "media_loops_active"), "media_loops_active",
                                                          feedMediaLoopActiveFromJson);
  if (const auto* w = find(j, "windows")) f.windows = orThrow(feedWindowsFromJson(*w));
  if (const auto* n = find(j, "now")) f.now = decodeNow(*n);
  f.parser_alarm = optionalBool(j, "parser_alarm");
  if (const auto* s = find(j, "setup_tax")) f.setup_tax = decodeSetupTax(*s);
  if (const auto* d = find(j, "diagnostics")) f.diagnostics = decodeDiagnostics(*d);
  if (const auto* l = find(j, "ledger")) f.ledger = decodeLedger(*l);
  return f;
}

}  // namespace

nlohmann::json toJson(const FeedOdometer& v) {
  return {{"spent_usd", v.spent_usd},
          {"stamp_usd", v.stamp_usd},
          {"mac_first_usd", v.mac_first_usd},
          {"since", v.since}};
}

nlohmann::json toJson(const FeedToday& v) {
  nlohmann::json j = {{"spent_usd", v.spent_usd},
                      {"avoidable_usd", v.avoidable_usd},
                      {"turns", v.turns},
                      {"tokens_by_family", v.tokens_by_family},
                      {"avoidable_share", v.avoidable_share},
                      {"avoidable_share_split",
                       {{"mac", v.avoidable_share_split.mac}, {"tier", v.avoidable_share_split.tier}}},
                      {"avoidable_basis", v.avoidable_basis},
                      {"spent_basis_note", v.spent_basis_note}};
  putOptional(j, "spent_basis", v.spent_basis);
  putOptional(j, "windowed_computed_at", v.windowed_computed_at);
  return j;
}

nlohmann::json toJson(const FeedQuota& v) {
  nlohmann::json j = nlohmann::json::object();
  putOptional(j, "last_limit_event_at", v.last_limit_event_at);
  putOptional(j, "resets_note", v.resets_note);
  putOptional(j, "limited_until", v.limited_until);
  putOptional(j, "extra_usage_disabled_reason", v.extra_usage_disabled_reason);
  return j;
}

nlohmann::json toJson(const FeedNow& v) {
  nlohmann::json j = {{"active_agents", v.active_agents}, {"rate_tokens_per_min", v.rate_tokens_per_min}};
  if (v.mac_ai_sessions)
    j["mac_ai_sessions"] = {{"count", v.mac_ai_sessions->count}, {"period_label", v.mac_ai_sessions->period_label}};
  if (v.agents_by_model) j["agents_by_model"] = array(*v.agents_by_model);
  return j;
}

nlohmann::json toJson(const FeedSetupTax& v) {
  nlohmann::json j = {{"setup_tokens", v.setup_tokens},
                      {"first_turn_cost_usd", v.first_turn_cost_usd},
                      {"steady_state_setup_usd", v.steady_state_setup_usd},
                      {"measured_at", v.measured_at}};
  if (v.jump) j["jump"] = {{"delta_tokens", v.jump->delta_tokens}, {"previous_tokens", v.jump->previous_tokens}};
  return j;
}

nlohmann::json toJson(const FeedDiagnosticsEquality& v) {
  nlohmann::json j = {{"matches", v.matches}, {"diff_usd", v.diff_usd}, {"checked_at", v.checked_at}};
  putOptional(j, "accumulator_spent_usd", v.accumulator_spent_usd);
  putOptional(j, "accumulator_turns", v.accumulator_turns);
  return j;
}

nlohmann::json toJson(const FeedDiagnostics& v) {
  nlohmann::json j = nlohmann::json::object();
  if (v.equality) j["equality"] = toJson(*v.equality);
  if (v.persist)
    j["persist"] = {{"count_since_start", v.persist->count_since_start},
                    {"bytes_last", v.persist->bytes_last},
                    {"bytes_since_start", v.persist->bytes_since_start}};
  if (v.exclusions) j["exclusions"] = toJson(*v.exclusions);
  putOptional(j, "unreadable_files", v.unreadable_files);
  return j;
}

nlohmann::json toJson(const FeedLedger& v) {
  return {{"month_saved_usd", v.month_saved_usd},
          {"month_event_count", v.month_event_count},
          {"lifetime_saved_usd", v.lifetime_saved_usd}};
}

nlohmann::json toJson(const Feed& v) {
  nlohmann::json j = toJsonWithoutInventory(v);
  j["sessions_all"] = array(v.sessions_all);
  return j;
}

namespace {

nlohmann::json toJsonWithoutInventory(const Feed& v) {
  nlohmann::json j = {{"schema", v.schema},
                      {"generated_at", v.generated_at},
                      {"odometer", toJson(v.odometer)},
                      {"today", toJson(v.today)},
                      {"quota", toJson(v.quota)},
                      {"sessions", array(v.sessions)},
                      {"zero_context_sessions", v.zero_context_sessions},
                      {"sessions_all", nlohmann::json::array()},
                      {"media_loops_active", array(v.media_loops_active)},
                      {"windows", toJson(v.windows)},
                      {"now", toJson(v.now)},
                      {"diagnostics", toJson(v.diagnostics)}};
  // The alarm is published only while it stands.
  if (v.parser_alarm == true) j["parser_alarm"] = true;
  if (v.setup_tax) j["setup_tax"] = toJson(*v.setup_tax);
  if (v.ledger) j["ledger"] = toJson(*v.ledger);
  return j;
}

// Text from transcripts was repaired to valid UTF-8 when read; replacing
// guards the odd path name that is not, rather than losing the feed.
std::string pretty(const nlohmann::json& j) {
  return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The empty inventory as a pretty-printed feed shows it. JSON strings hold
// no raw line feed, so this text occurs nowhere else in a feed.
constexpr std::string_view kEmptyInventory = "\n  \"sessions_all\": []";

}  // namespace

std::string encodeFeedJSON(const Feed& feed) {
  std::string out = pretty(toJson(feed));
  out += '\n';
  return out;
}

FeedEncoder::EncodedRow& FeedEncoder::encodedRow(const FeedSession& row) {
  EncodedRow& known = rows_[row.sessionId];
  if (known.text.empty() || !(known.row == row)) {
    // A row sits two levels deep: four more spaces on every line.
    known.text = "    ";
    for (char c : pretty(toJson(row))) {
      known.text += c;
      if (c == '\n') known.text += "    ";
    }
    known.row = row;
  }
  return known;
}

void FeedEncoder::prepareRows(const Feed& feed) {
  for (const FeedSession& row : feed.sessions_all) (void)encodedRow(row);
}

std::string FeedEncoder::encode(const Feed& feed) {
  std::string out = pretty(toJsonWithoutInventory(feed));
  const uint64_t encoding = ++encodings_;
  std::string inventory = "\n  \"sessions_all\": [";
  for (size_t i = 0; i < feed.sessions_all.size(); ++i) {
    EncodedRow& known = encodedRow(feed.sessions_all[i]);
    known.usedIn = encoding;
    inventory += i == 0 ? "\n" : ",\n";
    inventory += known.text;
  }
  inventory += feed.sessions_all.empty() ? "]" : "\n  ]";
  // Rows of chats that left the inventory are dropped.
  if (rows_.size() > feed.sessions_all.size())
    std::erase_if(rows_, [encoding](const auto& entry) { return entry.second.usedIn != encoding; });
  const size_t at = out.find(kEmptyInventory);
  if (at != std::string::npos) out.replace(at, kEmptyInventory.size(), inventory);
  out += '\n';
  return out;
}

Result<Feed> decodeFeed(const nlohmann::json& j) {
  try {
    return decode(j);
  } catch (const DecodeError& e) {
    return Error{e.what()};
  } catch (const nlohmann::json::exception& e) {
    return Error{e.what()};
  }
}

Result<Feed> decodeFeedJSON(std::string_view text) {
  nlohmann::json j = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  if (j.is_discarded()) return Error{"not JSON"};
  return decodeFeed(j);
}

}  // namespace ostler
