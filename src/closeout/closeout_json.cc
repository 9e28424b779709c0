// The JSON forms of the closeout's document and verdict: the one place that
// calls the JSON library for them, whose exceptions stop here. Keys are the
// records' field names; absent optional fields are left out; the files
// these become have sorted keys. Decoding follows the records: a required
// key that is missing, null or of the wrong type fails, an optional one may
// be missing or null, and unknown keys are ignored. Integers must be
// written as integers.
#include <cmath>

#include "closeout/closeout_json_codec.h"
#include "closeout/grounding.h"

namespace ostler {
namespace CloseoutJson {
namespace {

Result<std::string> dump(const ordered_json& value, bool pretty) {
  // Converting to `json` sorts every object's keys. Invalid UTF-8 cannot
  // reach here from decoded input; should it, it is replaced rather than
  // thrown.
  return json(value).dump(pretty ? 2 : -1, ' ', false, json::error_handler_t::replace);
}

// Numbers without a JSON form fail the encoding.
bool finite(const std::optional<double>& v) { return !v || std::isfinite(*v); }

ordered_json toJSON(const DocUpdate& u) { return {{"path", u.path}, {"rationale", u.rationale}, {"patch", u.patch}}; }

template <typename T>
void putOptional(ordered_json& object, const char* key, const std::optional<T>& v) {
  if (v) object[key] = *v;
}

bool decodeDocUpdate(const json& v, DocUpdate& out, std::optional<Error>& error) {
  Fields f(v, "doc update");
  f.string("path", out.path);
  f.string("rationale", out.rationale);
  f.string("patch", out.patch);
  if (!f.ok()) error = f.error();
  return f.ok();
}

bool decodeDocUpdateList(const json* v, std::vector<DocUpdate>& out, std::optional<Error>& error) {
  if (v == nullptr || !v->is_array()) {
    error = jsonError("doc_updates: not a list");
    return false;
  }
  for (const json& item : *v)
    if (!decodeDocUpdate(item, out.emplace_back(), error)) return false;
  return true;
}

ordered_json toJSON(const Checks::CheckResult& r) {
  return {{"name", r.name}, {"pass", r.pass}, {"detail", r.detail}, {"void", r.isVoid}};
}

ordered_json toJSON(const Grounding::Result& g) {
  ordered_json citations = ordered_json::array();
  for (const Grounding::CitationVerdict& c : g.citations) {
    ordered_json item = {{"citation", c.citation}};
    putOptional(item, "canonical", c.canonical);
    item["grounded"] = c.grounded;
    citations.push_back(std::move(item));
  }
  return {{"name", g.name},
          {"citations", std::move(citations)},
          {"unverifiable", g.unverifiable},
          {"pass", g.pass},
          {"void", g.isVoid},
          {"detail", g.detail}};
}

bool decodeCheckResult(const json* v, Checks::CheckResult& r) {
  if (v == nullptr) return false;
  Fields f(*v, "check");
  f.string("name", r.name);
  f.boolean("pass", r.pass);
  f.string("detail", r.detail);
  std::optional<bool> isVoid;
  f.optional("void", isVoid);
  r.isVoid = isVoid.value_or(false);
  return f.ok();
}

bool decodeGrounding(const json& v, Grounding::Result& g) {
  Fields f(v, "grounding");
  f.string("name", g.name);
  f.boolean("pass", g.pass);
  f.boolean("void", g.isVoid);
  f.string("detail", g.detail);
  const json* citations = f.find("citations");
  const json* unverifiable = f.find("unverifiable");
  if (!f.ok() || citations == nullptr || !citations->is_array() || unverifiable == nullptr || !unverifiable->is_array())
    return false;
  for (const json& item : *citations) {
    Grounding::CitationVerdict& c = g.citations.emplace_back();
    Fields cf(item, "citation");
    cf.string("citation", c.citation);
    cf.optional("canonical", c.canonical);
    cf.boolean("grounded", c.grounded);
    if (!cf.ok()) return false;
  }
  for (const json& item : *unverifiable) {
    if (!item.is_string()) return false;
    g.unverifiable.push_back(item.get<std::string>());
  }
  return true;
}

}  // namespace

Result<json> parse(std::string_view bytes) {
  json value = json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return jsonError("not JSON");
  return value;
}

bool encodable(const CloseoutDocument& d) {
  return !d.cost || (std::isfinite(d.cost->wall_seconds) && finite(d.cost->usd));
}

ordered_json toJSON(const CostRecord& c) {
  ordered_json j = {{"tier", c.tier}, {"input_tokens", c.input_tokens}, {"output_tokens", c.output_tokens}};
  putOptional(j, "cache_read_tokens", c.cache_read_tokens);
  putOptional(j, "cache_write_tokens", c.cache_write_tokens);
  putOptional(j, "cache_write_5m_tokens", c.cache_write_5m_tokens);
  putOptional(j, "cache_write_1h_tokens", c.cache_write_1h_tokens);
  j["wall_seconds"] = c.wall_seconds;
  j["tokens_are_proxy"] = c.tokens_are_proxy;
  putOptional(j, "usd", c.usd);
  putOptional(j, "model_id", c.model_id);
  putOptional(j, "session_id", c.session_id);
  return j;
}

ordered_json toJSON(const CloseoutDocument& d) {
  ordered_json updates = ordered_json::array();
  for (const DocUpdate& u : d.doc_updates) updates.push_back(toJSON(u));
  ordered_json j = {{"handoff", d.handoff}, {"doc_updates", std::move(updates)}};
  if (d.cost) j["cost"] = toJSON(*d.cost);
  putOptional(j, "degradation_count", d.degradation_count);
  putOptional(j, "map_failure_count", d.map_failure_count);
  return j;
}

ordered_json toJSON(const Checks::Verdict& v) {
  ordered_json j = {{"c1", toJSON(v.c1)},
                    {"c2", toJSON(v.c2)},
                    {"c3", toJSON(v.c3)},
                    {"c4", toJSON(v.c4)},
                    {"overall_pass", v.overallPass},
                    {"disclosure", v.disclosure}};
  if (v.grounding) j["grounding"] = toJSON(*v.grounding);
  return j;
}

Result<CostRecord> decodeCost(const json& v) {
  CostRecord c;
  Fields f(v, "cost");
  f.string("tier", c.tier);
  f.integer("input_tokens", c.input_tokens);
  f.integer("output_tokens", c.output_tokens);
  f.optional("cache_read_tokens", c.cache_read_tokens);
  f.optional("cache_write_tokens", c.cache_write_tokens);
  f.optional("cache_write_5m_tokens", c.cache_write_5m_tokens);
  f.optional("cache_write_1h_tokens", c.cache_write_1h_tokens);
  f.number("wall_seconds", c.wall_seconds);
  f.boolean("tokens_are_proxy", c.tokens_are_proxy);
  f.optional("usd", c.usd);
  f.optional("model_id", c.model_id);
  f.optional("session_id", c.session_id);
  if (!f.ok()) return f.error();
  return c;
}

Result<CloseoutDocument> decodeDocument(const json& v) {
  CloseoutDocument d;
  Fields f(v, "closeout document");
  f.string("handoff", d.handoff);
  std::optional<Error> error;
  if (f.ok() && !decodeDocUpdateList(f.find("doc_updates"), d.doc_updates, error)) return *error;
  if (const json* cost = f.find("cost"); f.ok() && cost != nullptr) {
    auto decoded = decodeCost(*cost);
    if (!decoded) return decoded.error();
    d.cost = std::move(decoded).value();
  }
  f.optional("degradation_count", d.degradation_count);
  f.optional("map_failure_count", d.map_failure_count);
  if (!f.ok()) return f.error();
  return d;
}

Result<Checks::Verdict> decodeVerdict(const json& value) {
  Checks::Verdict v;
  Fields f(value, "verdict");
  f.boolean("overall_pass", v.overallPass);
  f.string("disclosure", v.disclosure);
  if (!f.ok()) return f.error();
  if (!decodeCheckResult(f.find("c1"), v.c1) || !decodeCheckResult(f.find("c2"), v.c2) ||
      !decodeCheckResult(f.find("c3"), v.c3) || !decodeCheckResult(f.find("c4"), v.c4))
    return jsonError("verdict: bad check");
  if (const json* g = f.find("grounding"); g != nullptr && !decodeGrounding(*g, v.grounding.emplace()))
    return jsonError("verdict: bad grounding");
  return v;
}

}  // namespace CloseoutJson

using CloseoutJson::guarded;
using CloseoutJson::json;
using CloseoutJson::jsonError;

Result<std::string> CloseoutDocument::encodedJSON(bool pretty) const {
  return guarded<std::string>([&]() -> Result<std::string> {
    if (!CloseoutJson::encodable(*this)) return jsonError("cannot encode a figure that is not finite");
    return CloseoutJson::dump(CloseoutJson::toJSON(*this), pretty);
  });
}

Result<CloseoutDocument> CloseoutDocument::decode(std::string_view bytes) {
  return guarded<CloseoutDocument>([&]() -> Result<CloseoutDocument> {
    auto value = CloseoutJson::parse(bytes);
    if (!value) return value.error();
    return CloseoutJson::decodeDocument(value.value());
  });
}

Result<ModelFacingOutput> ModelFacingOutput::decode(std::string_view bytes) {
  return guarded<ModelFacingOutput>([&]() -> Result<ModelFacingOutput> {
    auto value = CloseoutJson::parse(bytes);
    if (!value) return value.error();
    ModelFacingOutput out;
    CloseoutJson::Fields f(value.value(), "model output");
    f.string("handoff", out.handoff);
    if (!f.ok()) return f.error();
    std::optional<Error> error;
    if (!CloseoutJson::decodeDocUpdateList(f.find("doc_updates"), out.doc_updates, error)) return *error;
    return out;
  });
}

Result<std::vector<DocUpdate>> decodeDocUpdates(std::string_view bytes) {
  return guarded<std::vector<DocUpdate>>([&]() -> Result<std::vector<DocUpdate>> {
    auto value = CloseoutJson::parse(bytes);
    if (!value) return value.error();
    if (value.value().is_object()) {
      auto document = CloseoutJson::decodeDocument(value.value());
      if (!document) return document.error();
      return std::move(document).value().doc_updates;
    }
    if (!value.value().is_array()) return jsonError("neither a list of doc updates nor a closeout document");
    std::vector<DocUpdate> updates;
    std::optional<Error> error;
    if (!CloseoutJson::decodeDocUpdateList(&value.value(), updates, error)) return *error;
    return updates;
  });
}

Result<std::string> Checks::Verdict::encodedJSON(bool pretty) const {
  return guarded<std::string>(
      [&]() -> Result<std::string> { return CloseoutJson::dump(CloseoutJson::toJSON(*this), pretty); });
}

Result<Checks::Verdict> Checks::Verdict::decode(std::string_view bytes) {
  return guarded<Checks::Verdict>([&]() -> Result<Checks::Verdict> {
    auto value = CloseoutJson::parse(bytes);
    if (!value) return value.error();
    return CloseoutJson::decodeVerdict(value.value());
  });
}

}  // namespace ostler
