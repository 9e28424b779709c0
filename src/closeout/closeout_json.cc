// The JSON forms of the closeout's records: the one place that calls the
// JSON library, whose exceptions stop here. Keys are the records' field
// names; absent optional fields are left out; objects come out with sorted
// keys. Decoding follows the records: a required key that is missing, null
// or of the wrong type fails, an optional one may be missing or null, and
// unknown keys are ignored. Integers must be written as integers.
#include <cmath>
#include <exception>
#include <limits>
#include <nlohmann/json.hpp>

#include "closeout/checks.h"
#include "closeout/closeout_document.h"
#include "closeout/grounding.h"

namespace ostler {
namespace {

using nlohmann::json;

// An error that names no file.
Error jsonError(std::string message) {
  Error e;
  e.message = std::move(message);
  return e;
}

// Reads the fields of one object, noting the first failure.
class Fields {
 public:
  Fields(const json& object, std::string what) : object_(object), what_(std::move(what)) {
    if (!object_.is_object()) fail("not an object");
  }

  [[nodiscard]] bool ok() const { return !error_; }
  [[nodiscard]] Error error() const { return *error_; }

  // Required fields.
  void string(const char* key, std::string& out) {
    required(key, [&](const json& v) { return getString(v, out); });
  }
  void integer(const char* key, int64_t& out) {
    required(key, [&](const json& v) { return getInteger(v, out); });
  }
  void number(const char* key, double& out) {
    required(key, [&](const json& v) { return getNumber(v, out); });
  }
  void boolean(const char* key, bool& out) {
    required(key, [&](const json& v) { return getBool(v, out); });
  }
  template <typename Decode>
  void required(const char* key, Decode decode) {
    const json* v = find(key);
    if (v == nullptr) return fail(std::string("missing ") + key);
    if (!decode(*v)) fail(std::string("bad ") + key);
  }

  // Optional fields: absent when missing or null.
  template <typename T>
  void optional(const char* key, std::optional<T>& out) {
    const json* v = find(key);
    if (v == nullptr) return;
    T value{};
    bool good = false;
    if constexpr (std::is_same_v<T, std::string>) good = getString(*v, value);
    if constexpr (std::is_same_v<T, int64_t>) good = getInteger(*v, value);
    if constexpr (std::is_same_v<T, double>) good = getNumber(*v, value);
    if constexpr (std::is_same_v<T, bool>) good = getBool(*v, value);
    if (!good) return fail(std::string("bad ") + key);
    out = std::move(value);
  }

  // The value at `key`; nothing when missing or null.
  [[nodiscard]] const json* find(const char* key) const {
    if (!object_.is_object()) return nullptr;
    auto it = object_.find(key);
    if (it == object_.end() || it->is_null()) return nullptr;
    return &*it;
  }

  void fail(const std::string& why) {
    if (!error_) error_ = jsonError(what_ + ": " + why);
  }

 private:
  static bool getString(const json& v, std::string& out) {
    if (!v.is_string()) return false;
    out = v.get<std::string>();
    return true;
  }
  static bool getInteger(const json& v, int64_t& out) {
    if (v.is_number_unsigned()) {
      const uint64_t u = v.get<uint64_t>();
      if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
      out = static_cast<int64_t>(u);
      return true;
    }
    if (!v.is_number_integer()) return false;
    out = v.get<int64_t>();
    return true;
  }
  static bool getNumber(const json& v, double& out) {
    if (!v.is_number()) return false;
    out = v.get<double>();
    return true;
  }
  static bool getBool(const json& v, bool& out) {
    if (!v.is_boolean()) return false;
    out = v.get<bool>();
    return true;
  }

  const json& object_;
  std::string what_;
  std::optional<Error> error_;
};

Result<json> parse(std::string_view bytes) {
  json value = json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return jsonError("not JSON");
  return value;
}

Result<std::string> dump(const json& value, bool pretty) {
  // Invalid UTF-8 cannot reach here from decoded input; should it, it is
  // replaced rather than thrown.
  return value.dump(pretty ? 2 : -1, ' ', false, json::error_handler_t::replace);
}

// Numbers without a JSON form fail the encoding.
bool finite(const std::optional<double>& v) { return !v || std::isfinite(*v); }

json toJSON(const DocUpdate& u) { return {{"path", u.path}, {"rationale", u.rationale}, {"patch", u.patch}}; }

template <typename T>
void putOptional(json& object, const char* key, const std::optional<T>& v) {
  if (v) object[key] = *v;
}

json toJSON(const CostRecord& c) {
  json j = {{"tier", c.tier},
            {"input_tokens", c.input_tokens},
            {"output_tokens", c.output_tokens},
            {"wall_seconds", c.wall_seconds},
            {"tokens_are_proxy", c.tokens_are_proxy}};
  putOptional(j, "cache_read_tokens", c.cache_read_tokens);
  putOptional(j, "cache_write_tokens", c.cache_write_tokens);
  putOptional(j, "cache_write_5m_tokens", c.cache_write_5m_tokens);
  putOptional(j, "cache_write_1h_tokens", c.cache_write_1h_tokens);
  putOptional(j, "usd", c.usd);
  putOptional(j, "model_id", c.model_id);
  putOptional(j, "session_id", c.session_id);
  return j;
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

bool decodeCost(const json& v, CostRecord& c, std::optional<Error>& error) {
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
  if (!f.ok()) error = f.error();
  return f.ok();
}

Result<CloseoutDocument> decodeDocument(const json& v) {
  CloseoutDocument d;
  Fields f(v, "closeout document");
  f.string("handoff", d.handoff);
  std::optional<Error> error;
  if (f.ok() && !decodeDocUpdateList(f.find("doc_updates"), d.doc_updates, error)) return *error;
  if (const json* cost = f.find("cost"); f.ok() && cost != nullptr && !decodeCost(*cost, d.cost.emplace(), error))
    return *error;
  f.optional("degradation_count", d.degradation_count);
  f.optional("map_failure_count", d.map_failure_count);
  if (!f.ok()) return f.error();
  return d;
}

json toJSON(const Checks::CheckResult& r) {
  return {{"name", r.name}, {"pass", r.pass}, {"detail", r.detail}, {"void", r.isVoid}};
}

json toJSON(const Grounding::Result& g) {
  json citations = json::array();
  for (const Grounding::CitationVerdict& c : g.citations) {
    json item = {{"citation", c.citation}, {"grounded", c.grounded}};
    putOptional(item, "canonical", c.canonical);
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

// Runs `body`, turning anything the JSON library throws into an error.
template <typename T, typename Body>
Result<T> guarded(Body body) {
  try {
    return body();
  } catch (const std::exception& e) {
    return jsonError(std::string("JSON: ") + e.what());
  }
}

}  // namespace

Result<std::string> CloseoutDocument::encodedJSON(bool pretty) const {
  return guarded<std::string>([&]() -> Result<std::string> {
    if (cost && (!std::isfinite(cost->wall_seconds) || !finite(cost->usd)))
      return jsonError("cannot encode a figure that is not finite");
    json updates = json::array();
    for (const DocUpdate& u : doc_updates) updates.push_back(toJSON(u));
    json j = {{"handoff", handoff}, {"doc_updates", std::move(updates)}};
    if (cost) j["cost"] = toJSON(*cost);
    putOptional(j, "degradation_count", degradation_count);
    putOptional(j, "map_failure_count", map_failure_count);
    return dump(j, pretty);
  });
}

Result<CloseoutDocument> CloseoutDocument::decode(std::string_view bytes) {
  return guarded<CloseoutDocument>([&]() -> Result<CloseoutDocument> {
    auto value = parse(bytes);
    if (!value) return value.error();
    return decodeDocument(value.value());
  });
}

Result<ModelFacingOutput> ModelFacingOutput::decode(std::string_view bytes) {
  return guarded<ModelFacingOutput>([&]() -> Result<ModelFacingOutput> {
    auto value = parse(bytes);
    if (!value) return value.error();
    ModelFacingOutput out;
    Fields f(value.value(), "model output");
    f.string("handoff", out.handoff);
    if (!f.ok()) return f.error();
    std::optional<Error> error;
    if (!decodeDocUpdateList(f.find("doc_updates"), out.doc_updates, error)) return *error;
    return out;
  });
}

Result<std::vector<DocUpdate>> decodeDocUpdates(std::string_view bytes) {
  return guarded<std::vector<DocUpdate>>([&]() -> Result<std::vector<DocUpdate>> {
    auto value = parse(bytes);
    if (!value) return value.error();
    if (value.value().is_object()) {
      auto document = decodeDocument(value.value());
      if (!document) return document.error();
      return std::move(document).value().doc_updates;
    }
    if (!value.value().is_array()) return jsonError("neither a list of doc updates nor a closeout document");
    std::vector<DocUpdate> updates;
    std::optional<Error> error;
    if (!decodeDocUpdateList(&value.value(), updates, error)) return *error;
    return updates;
  });
}

Result<std::string> Checks::Verdict::encodedJSON(bool pretty) const {
  return guarded<std::string>([&]() -> Result<std::string> {
    json j = {{"c1", toJSON(c1)},
              {"c2", toJSON(c2)},
              {"c3", toJSON(c3)},
              {"c4", toJSON(c4)},
              {"overall_pass", overallPass},
              {"disclosure", disclosure}};
    if (grounding) j["grounding"] = toJSON(*grounding);
    return dump(j, pretty);
  });
}

Result<Checks::Verdict> Checks::Verdict::decode(std::string_view bytes) {
  return guarded<Verdict>([&]() -> Result<Verdict> {
    auto value = parse(bytes);
    if (!value) return value.error();
    Verdict v;
    Fields f(value.value(), "verdict");
    f.boolean("overall_pass", v.overallPass);
    f.string("disclosure", v.disclosure);
    if (!f.ok()) return f.error();
    if (!decodeCheckResult(f.find("c1"), v.c1) || !decodeCheckResult(f.find("c2"), v.c2) ||
        !decodeCheckResult(f.find("c3"), v.c3) || !decodeCheckResult(f.find("c4"), v.c4))
      return jsonError("verdict: bad check");
    if (const json* g = f.find("grounding"); g != nullptr && !decodeGrounding(*g, v.grounding.emplace()))
      return jsonError("verdict: bad grounding");
    return v;
  });
}

}  // namespace ostler
