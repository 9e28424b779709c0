#include "meter/receipt.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <type_traits>

namespace ostler {
namespace {

using nlohmann::json;

json detailLinesJSON(const std::vector<ReceiptDetailLine>& lines) {
  json a = json::array();
  for (const auto& l : lines) {
    json d = {{"text", l.text}, {"usd", l.usd}};
    if (l.session_id) d["session_id"] = *l.session_id;
    a.push_back(std::move(d));
  }
  return a;
}

json categoriesJSON(const std::vector<ReceiptCategory>& cats) {
  json a = json::array();
  for (const auto& c : cats) {
    json d = {{"key", c.key},
              {"label", c.label},
              {"usd", c.usd},
              {"detail_lines", detailLinesJSON(c.detail_lines)},
              {"sessions_distinct", c.sessions_distinct}};
    if (c.session_attribution_note) d["session_attribution_note"] = *c.session_attribution_note;
    a.push_back(std::move(d));
  }
  return a;
}

// The library would truncate 2.5 to 2 and wrap a number past the signed
// range; a count must be written as a whole number that fits.
template <typename T>
T valueOf(const json& v) {
  if constexpr (std::is_same_v<T, int64_t>) {
    if (!v.is_number_integer() ||
        (v.is_number_unsigned() && v.get<uint64_t>() > uint64_t(std::numeric_limits<int64_t>::max())))
      throw json::type_error::create(302, "not a count: " + v.dump(), &v);
  }
  return v.get<T>();
}

// A list must be an array: the library would walk null as an empty list and
// an object as its values.
const json& elements(const json& v) {
  if (!v.is_array()) throw json::type_error::create(302, "not a list: " + v.dump(), &v);
  return v;
}

// Decoding: `at` throws on a missing key or a wrong type; `opt` gives the
// fallback of a key that older receipts lack.
template <typename T>
T at(const json& j, const char* key) {
  return valueOf<T>(j.at(key));
}

template <typename T>
T opt(const json& j, const char* key, T fallback) {
  // A key that older receipts may lack reads a null as lacking it too, as
  // the optional texts do.
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return fallback;
  return valueOf<T>(*it);
}

std::optional<std::string> optString(const json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return std::nullopt;
  return it->get<std::string>();
}

std::vector<ReceiptDetailLine> decodeDetailLines(const json& a) {
  std::vector<ReceiptDetailLine> out;
  for (const auto& d : elements(a))
    out.push_back({at<std::string>(d, "text"), at<double>(d, "usd"), optString(d, "session_id")});
  return out;
}

std::vector<ReceiptCategory> decodeCategories(const json& a) {
  std::vector<ReceiptCategory> out;
  for (const auto& c : elements(a)) {
    out.push_back({at<std::string>(c, "key"), at<std::string>(c, "label"), at<double>(c, "usd"),
                   decodeDetailLines(c.at("detail_lines")), opt<int64_t>(c, "sessions_distinct", 0),
                   optString(c, "session_attribution_note")});
  }
  return out;
}

}  // namespace

void to_json(json& j, const Receipt& r) {
  const auto& d = r.waste.diagnostics_raw_usd;
  json byModel = json::array(), byProject = json::array(), byDay = json::array(), top = json::array(),
       loops = json::array();
  for (const auto& m : r.by_model) byModel.push_back({{"model", m.model}, {"turns", m.turns}, {"spent_usd", m.spent_usd}});
  for (const auto& p : r.by_project)
    byProject.push_back({{"project", p.project}, {"sessions", p.sessions}, {"spent_usd", p.spent_usd}});
  for (const auto& day : r.by_day) byDay.push_back({{"date", day.date}, {"spent_usd", day.spent_usd}});
  for (const auto& s : r.top_sessions)
    top.push_back({{"sessionId", s.sessionId},
                   {"project", s.project},
                   {"spent_usd", s.spent_usd},
                   {"turns", s.turns},
                   {"context_peak", s.context_peak}});
  for (const auto& l : r.mac_first.media_loops.loops)
    loops.push_back({{"sessionId", l.sessionId}, {"project", l.project}, {"images", l.images}, {"usd", l.usd}});
  const auto& ml = r.mac_first.media_loops;
  const auto& f = r.flags;
  j = json{
      {"schema", r.schema},
      {"generated_at", r.generated_at},
      {"period", {{"from", r.period.from}, {"to", r.period.to}}},
      {"totals",
       {{"turns", r.totals.turns},
        {"sessions", r.totals.sessions},
        {"projects", r.totals.projects},
        {"spent_usd", r.totals.spent_usd},
        {"tokens",
         {{"input", r.totals.tokens.input},
          {"output", r.totals.tokens.output},
          {"cache_read", r.totals.tokens.cache_read},
          {"cache_write", r.totals.tokens.cache_write}}},
        {"sessions_context_over_100k", r.totals.sessions_context_over_100k}}},
      {"by_model", byModel},
      {"by_project", byProject},
      {"by_day", byDay},
      {"waste",
       {{"total_usd", r.waste.total_usd},
        {"overlap_note", r.waste.overlap_note},
        {"categories", categoriesJSON(r.waste.categories)},
        {"diagnostics_raw_usd",
         {{"overweight", d.overweight},
          {"duplicate_reads", d.duplicate_reads},
          {"oversized_dumps", d.oversized_dumps},
          {"cache_expiry", d.cache_expiry},
          {"w1_composition",
           {{"input_usd", d.w1_composition.input_usd}, {"cache_write_usd", d.w1_composition.cache_write_usd}}},
          {"carried_context_read_usd", d.carried_context_read_usd},
          {"media_reads", d.media_reads},
          {"repeat_pipelines", d.repeat_pipelines},
          {"downshift", d.downshift},
          {"carried_duplicates_read_usd", d.carried_duplicates_read_usd},
          {"carried_dumps_read_usd", d.carried_dumps_read_usd},
          {"whole_session_downshift_usd", d.whole_session_downshift_usd},
          {"dispatch_downshift_usd", d.dispatch_downshift_usd},
          {"dispatch_downshift_units", d.dispatch_downshift_units},
          {"dispatch_downshift_spend_usd", d.dispatch_downshift_spend_usd}}}}},
      {"mac_first",
       {{"total_usd", r.mac_first.total_usd},
        {"categories", categoriesJSON(r.mac_first.categories)},
        {"media_loops",
         {{"total_usd", ml.total_usd},
          {"raw_uncapped_usd", ml.raw_uncapped_usd},
          {"count", ml.count},
          {"loops", loops},
          {"attribution_note", ml.attribution_note},
          {"sessions_distinct", ml.sessions_distinct}}}}},
      {"fair_usd", r.fair_usd},
      {"top_sessions", top},
      {"flags",
       {{"unknown_models", f.unknown_models},
        {"skipped_lines", f.skipped_lines},
        {"pricing_note", f.pricing_note},
        {"distinct_session_ids", f.distinct_session_ids},
        {"distinct_files", f.distinct_files},
        {"files_with_multiple_session_ids", f.files_with_multiple_session_ids},
        {"turns_per_session_p50", f.turns_per_session_p50},
        {"turns_per_session_p95", f.turns_per_session_p95},
        {"turns_per_session_max", f.turns_per_session_max},
        {"subagent_files", f.subagent_files},
        {"subagent_turns", f.subagent_turns},
        {"lines_without_request_id", f.lines_without_request_id},
        {"duplicate_request_id_lines_skipped", f.duplicate_request_id_lines_skipped},
        {"distinct_request_ids", f.distinct_request_ids}}},
      {"session_id_convention", r.session_id_convention},
  };
  if (r.typed_share) {
    const auto& t = *r.typed_share;
    j["typed_share"] = {{"floor_usd", t.floor_usd},
                        {"floor_turns", t.floor_turns},
                        {"ceiling_usd", t.ceiling_usd},
                        {"ceiling_turns", t.ceiling_turns},
                        {"paste_count", t.paste_count},
                        {"base_usd", t.base_usd},
                        {"base_turns", t.base_turns},
                        {"faced_share_percent", t.faced_share_percent},
                        {"synthetic_zeroed_count", t.synthetic_zeroed_count},
                        {"sessions_distinct", t.sessions_distinct}};
  }
  if (r.switch_tax) {
    const auto& s = *r.switch_tax;
    j["switch_tax"] = {{"floor_usd", s.floor_usd},
                       {"counterfactual_usd", s.counterfactual_usd},
                       {"switch_count", s.switch_count},
                       {"session_count", s.session_count},
                       {"top_switches", detailLinesJSON(s.top_switches)},
                       {"sessions_distinct", s.sessions_distinct}};
  }
  if (r.auto_compactions) {
    const auto& a = *r.auto_compactions;
    j["auto_compactions"] = {{"primary_usd", a.primary_usd},
                             {"bound_usd", a.bound_usd},
                             {"event_count", a.event_count},
                             {"involuntary_count", a.involuntary_count},
                             {"voluntary_count", a.voluntary_count},
                             {"example_primary_usd", a.example_primary_usd},
                             {"example_pre_tokens", a.example_pre_tokens},
                             {"example_post_tokens", a.example_post_tokens},
                             {"primary_pre_leg_usd", a.primary_pre_leg_usd},
                             {"output_leg_usd", a.output_leg_usd},
                             {"bound_pre_leg_usd", a.bound_pre_leg_usd},
                             {"top_events", detailLinesJSON(a.top_events)},
                             {"sessions_distinct", a.sessions_distinct}};
  }
}

Result<Receipt> decodeReceipt(const json& j) {
  try {
    Receipt r;
    r.schema = at<std::string>(j, "schema");
    r.generated_at = at<std::string>(j, "generated_at");
    r.period = {at<std::string>(j.at("period"), "from"), at<std::string>(j.at("period"), "to")};
    const json& t = j.at("totals");
    const json& tk = t.at("tokens");
    r.totals = {at<int64_t>(t, "turns"),
                at<int64_t>(t, "sessions"),
                at<int64_t>(t, "projects"),
                at<double>(t, "spent_usd"),
                {at<int64_t>(tk, "input"), at<int64_t>(tk, "output"), at<int64_t>(tk, "cache_read"),
                 at<int64_t>(tk, "cache_write")},
                opt<int64_t>(t, "sessions_context_over_100k", 0)};
    for (const auto& m : elements(j.at("by_model")))
      r.by_model.push_back({at<std::string>(m, "model"), at<int64_t>(m, "turns"), at<double>(m, "spent_usd")});
    for (const auto& p : elements(j.at("by_project")))
      r.by_project.push_back({at<std::string>(p, "project"), at<int64_t>(p, "sessions"), at<double>(p, "spent_usd")});
    for (const auto& d : elements(j.at("by_day")))
      r.by_day.push_back({at<std::string>(d, "date"), at<double>(d, "spent_usd")});

    const json& w = j.at("waste");
    r.waste.total_usd = at<double>(w, "total_usd");
    r.waste.overlap_note = at<std::string>(w, "overlap_note");
    r.waste.categories = decodeCategories(w.at("categories"));
    const json& d = w.at("diagnostics_raw_usd");
    auto& dg = r.waste.diagnostics_raw_usd;
    dg.overweight = at<double>(d, "overweight");
    dg.duplicate_reads = at<double>(d, "duplicate_reads");
    dg.oversized_dumps = at<double>(d, "oversized_dumps");
    dg.cache_expiry = at<double>(d, "cache_expiry");
    dg.w1_composition = {at<double>(d.at("w1_composition"), "input_usd"),
                         at<double>(d.at("w1_composition"), "cache_write_usd")};
    dg.carried_context_read_usd = at<double>(d, "carried_context_read_usd");
    dg.media_reads = at<double>(d, "media_reads");
    dg.repeat_pipelines = at<double>(d, "repeat_pipelines");
    dg.downshift = at<double>(d, "downshift");
    dg.carried_duplicates_read_usd = at<double>(d, "carried_duplicates_read_usd");
    dg.carried_dumps_read_usd = at<double>(d, "carried_dumps_read_usd");
    dg.whole_session_downshift_usd = at<double>(d, "whole_session_downshift_usd");
    dg.dispatch_downshift_usd = at<double>(d, "dispatch_downshift_usd");
    dg.dispatch_downshift_units = at<int64_t>(d, "dispatch_downshift_units");
    dg.dispatch_downshift_spend_usd = at<double>(d, "dispatch_downshift_spend_usd");

    const json& mf = j.at("mac_first");
    r.mac_first.total_usd = at<double>(mf, "total_usd");
    r.mac_first.categories = decodeCategories(mf.at("categories"));
    const json& ml = mf.at("media_loops");
    auto& loops = r.mac_first.media_loops;
    loops.total_usd = at<double>(ml, "total_usd");
    loops.raw_uncapped_usd = at<double>(ml, "raw_uncapped_usd");
    loops.count = at<int64_t>(ml, "count");
    for (const auto& l : elements(ml.at("loops")))
      loops.loops.push_back({at<std::string>(l, "sessionId"), at<std::string>(l, "project"),
                             at<int64_t>(l, "images"), at<double>(l, "usd")});
    loops.attribution_note = at<std::string>(ml, "attribution_note");
    loops.sessions_distinct = opt<int64_t>(ml, "sessions_distinct", 0);

    r.fair_usd = at<double>(j, "fair_usd");
    for (const auto& s : elements(j.at("top_sessions")))
      r.top_sessions.push_back({at<std::string>(s, "sessionId"), at<std::string>(s, "project"),
                                at<double>(s, "spent_usd"), at<int64_t>(s, "turns"), at<int64_t>(s, "context_peak")});

    const json& f = j.at("flags");
    auto& fl = r.flags;
    fl.unknown_models = at<std::vector<std::string>>(f, "unknown_models");
    fl.skipped_lines = at<int64_t>(f, "skipped_lines");
    fl.pricing_note = at<std::string>(f, "pricing_note");
    fl.distinct_session_ids = at<int64_t>(f, "distinct_session_ids");
    fl.distinct_files = at<int64_t>(f, "distinct_files");
    fl.files_with_multiple_session_ids = at<int64_t>(f, "files_with_multiple_session_ids");
    fl.turns_per_session_p50 = at<int64_t>(f, "turns_per_session_p50");
    fl.turns_per_session_p95 = at<int64_t>(f, "turns_per_session_p95");
    fl.turns_per_session_max = at<int64_t>(f, "turns_per_session_max");
    fl.subagent_files = at<int64_t>(f, "subagent_files");
    fl.subagent_turns = at<int64_t>(f, "subagent_turns");
    fl.lines_without_request_id = opt<int64_t>(f, "lines_without_request_id", 0);
    fl.duplicate_request_id_lines_skipped = opt<int64_t>(f, "duplicate_request_id_lines_skipped", 0);
    fl.distinct_request_ids = opt<int64_t>(f, "distinct_request_ids", 0);

    if (auto it = j.find("typed_share"); it != j.end() && !it->is_null()) {
      const json& t2 = *it;
      r.typed_share = ReceiptTypedShare{at<double>(t2, "floor_usd"),       at<int64_t>(t2, "floor_turns"),
                                        at<double>(t2, "ceiling_usd"),     at<int64_t>(t2, "ceiling_turns"),
                                        at<int64_t>(t2, "paste_count"),    at<double>(t2, "base_usd"),
                                        at<int64_t>(t2, "base_turns"),     at<double>(t2, "faced_share_percent"),
                                        at<int64_t>(t2, "synthetic_zeroed_count"),
                                        opt<int64_t>(t2, "sessions_distinct", 0)};
    }
    if (auto it = j.find("switch_tax"); it != j.end() && !it->is_null()) {
      const json& s = *it;
      r.switch_tax = ReceiptSwitchTax{at<double>(s, "floor_usd"),         at<double>(s, "counterfactual_usd"),
                                      at<int64_t>(s, "switch_count"),     at<int64_t>(s, "session_count"),
                                      decodeDetailLines(s.at("top_switches")), opt<int64_t>(s, "sessions_distinct", 0)};
    }
    if (auto it = j.find("auto_compactions"); it != j.end() && !it->is_null()) {
      const json& a = *it;
      ReceiptAutoCompactions c;
      c.primary_usd = at<double>(a, "primary_usd");
      c.bound_usd = at<double>(a, "bound_usd");
      c.event_count = at<int64_t>(a, "event_count");
      c.involuntary_count = at<int64_t>(a, "involuntary_count");
      c.voluntary_count = at<int64_t>(a, "voluntary_count");
      c.example_primary_usd = at<double>(a, "example_primary_usd");
      c.example_pre_tokens = at<int64_t>(a, "example_pre_tokens");
      c.example_post_tokens = at<int64_t>(a, "example_post_tokens");
      c.primary_pre_leg_usd = at<double>(a, "primary_pre_leg_usd");
      c.output_leg_usd = at<double>(a, "output_leg_usd");
      c.bound_pre_leg_usd = at<double>(a, "bound_pre_leg_usd");
      if (auto e = a.find("top_events"); e != a.end() && !e->is_null()) c.top_events = decodeDetailLines(*e);
      c.sessions_distinct = opt<int64_t>(a, "sessions_distinct", 0);
      r.auto_compactions = c;
    }
    r.session_id_convention = opt<std::string>(j, "session_id_convention", kSessionIdConvention);
    return r;
  } catch (const json::exception& e) {
    return Error{std::string("not a receipt: ") + e.what()};
  }
}

std::string encodeReceiptJSON(const Receipt& r) {
  json j = r;
  return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace ostler
