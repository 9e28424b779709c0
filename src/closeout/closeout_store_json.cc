// The closeout store's JSON: compact, keys in field order, the records of
// the document and the verdict in their own JSON forms. Instants are seconds
// since 2001-01-01 00:00:00 UTC, as every file the engine keeps for itself.
#include <cmath>

#include "closeout/closeout_json_codec.h"
#include "closeout/closeout_store.h"

namespace ostler {
namespace {

using CloseoutJson::Fields;
using CloseoutJson::json;
using CloseoutJson::jsonError;
using CloseoutJson::ordered_json;

bool finite(const std::optional<double>& v) { return !v || std::isfinite(*v); }

// Numbers that JSON cannot hold, found before encoding rather than written
// as null and refused by the next load.
bool encodable(const CloseoutStoreState& s) {
  for (const CloudDispatchRecord& r : s.dispatchRecords)
    if (!finite(r.counterfactualResumeUsd)) return false;
  if (s.bakedArtifact && !CloseoutJson::encodable(s.bakedArtifact->document)) return false;
  if (s.costRecords)
    for (const CostRecord& c : *s.costRecords)
      if (!std::isfinite(c.wall_seconds) || !finite(c.usd)) return false;
  return true;
}

template <typename T>
void putOptional(ordered_json& object, const char* key, const std::optional<T>& v) {
  if (v) object[key] = *v;
}

std::string kindName(CloseoutFailureKind kind) { return std::string(CloseoutFailure::name(kind)); }

ordered_json toJSON(const CloseoutChunk& c) {
  return {{"index", c.index},           {"byteStart", c.byteStart},
          {"byteEnd", c.byteEnd},       {"measuredTokens", c.measuredTokens},
          {"summary", c.summary},       {"contentHash", c.contentHash},
          {"pieceIndex", c.pieceIndex}, {"pieceCount", c.pieceCount}};
}

ordered_json toJSON(const CloseoutTree::Tree& tree) {
  ordered_json levels = ordered_json::array();
  for (const CloseoutTree::Level& level : tree.levels) {
    ordered_json nodes = ordered_json::array();
    for (const CloseoutTree::Node& n : level.nodes)
      nodes.push_back({{"childHashes", n.childHashes},
                       {"summary", n.summary},
                       {"contentHash", n.contentHash},
                       {"degraded", n.degraded}});
    levels.push_back({{"nodes", std::move(nodes)}});
  }
  return {{"levels", std::move(levels)}};
}

ordered_json toJSON(const CloseoutChunkFailure& f) {
  return {{"byteStart", f.byteStart}, {"byteEnd", f.byteEnd},       {"contentHash", f.contentHash},
          {"kind", kindName(f.kind)}, {"pieceIndex", f.pieceIndex}, {"pieceCount", f.pieceCount}};
}

ordered_json toJSON(const CloseoutReduceFailure& f) {
  return {{"level", f.level}, {"batchIndex", f.batchIndex}, {"childHashes", f.childHashes}, {"kind", kindName(f.kind)}};
}

ordered_json toJSON(const CloudDispatchRecord& r) {
  ordered_json j = ordered_json::object();
  putOptional(j, "sessionId", r.sessionId);
  j["requestedModel"] = r.requestedModel;
  j["timestamp"] = ReferenceSeconds::of(r.timestamp);
  j["cwd"] = r.cwd;
  j["dispatchFailed"] = r.dispatchFailed;
  if (r.endTime) j["endTime"] = ReferenceSeconds::of(*r.endTime);
  putOptional(j, "rawStdout", r.rawStdout);
  putOptional(j, "rawStderr", r.rawStderr);
  putOptional(j, "reconstructed", r.reconstructed);
  putOptional(j, "counterfactualResumeUsd", r.counterfactualResumeUsd);
  return j;
}

ordered_json toJSON(const CostRecord& c) { return CloseoutJson::toJSON(c); }

ordered_json toJSON(const CloseoutGenerationFailure& f) { return {{"kind", kindName(f.kind)}, {"reason", f.reason}}; }

ordered_json toJSON(const CloseoutPricingFailure& f) { return {{"sessionId", f.sessionId}, {"reason", f.reason}}; }

template <typename T>
ordered_json listJSON(const std::vector<T>& items) {
  ordered_json list = ordered_json::array();
  for (const T& item : items) list.push_back(toJSON(item));
  return list;
}

// Decoding. Each reader fills its record and gives the first failure, if
// any; declared ahead so that the list reader finds every one.
std::optional<Error> decode(const json& v, CloseoutChunk& c);
std::optional<Error> decode(const json& v, CloseoutChunkFailure& c);
std::optional<Error> decode(const json& v, CloseoutReduceFailure& r);
std::optional<Error> decode(const json& v, CloseoutTree::Node& n);
std::optional<Error> decode(const json& v, CloseoutTree::Level& level);
std::optional<Error> decode(const json& v, CloudDispatchRecord& r);
std::optional<Error> decode(const json& v, CostRecord& c);
std::optional<Error> decode(const json& v, CloseoutGenerationFailure& g);
std::optional<Error> decode(const json& v, CloseoutPricingFailure& p);

template <typename T>
std::optional<Error> decodeList(const json* v, const char* what, std::vector<T>& out) {
  if (v == nullptr || !v->is_array()) return jsonError(std::string(what) + ": not a list");
  for (const json& item : *v)
    if (auto error = decode(item, out.emplace_back())) return error;
  return std::nullopt;
}

std::optional<Error> decodeKind(Fields& f, CloseoutFailureKind& out) {
  std::string name;
  f.string("kind", name);
  if (!f.ok()) return f.error();
  auto kind = CloseoutFailure::parse(name);
  if (!kind) return jsonError("unknown failure kind \"" + name + "\"");
  out = *kind;
  return std::nullopt;
}

std::optional<Error> decodeStrings(const json* v, const char* what, std::vector<std::string>& out) {
  if (v == nullptr || !v->is_array()) return jsonError(std::string(what) + ": not a list");
  for (const json& item : *v) {
    if (!item.is_string()) return jsonError(std::string(what) + ": not a string");
    out.push_back(item.get<std::string>());
  }
  return std::nullopt;
}

std::optional<Error> decode(const json& v, CloseoutChunk& c) {
  Fields f(v, "chunk");
  f.integer("index", c.index);
  f.integer("byteStart", c.byteStart);
  f.integer("byteEnd", c.byteEnd);
  f.integer("measuredTokens", c.measuredTokens);
  f.string("summary", c.summary);
  f.string("contentHash", c.contentHash);
  f.integer("pieceIndex", c.pieceIndex);
  f.integer("pieceCount", c.pieceCount);
  if (!f.ok()) return f.error();
  return std::nullopt;
}

std::optional<Error> decode(const json& v, CloseoutChunkFailure& c) {
  Fields f(v, "chunk failure");
  f.integer("byteStart", c.byteStart);
  f.integer("byteEnd", c.byteEnd);
  f.string("contentHash", c.contentHash);
  f.integer("pieceIndex", c.pieceIndex);
  f.integer("pieceCount", c.pieceCount);
  return decodeKind(f, c.kind);
}

std::optional<Error> decode(const json& v, CloseoutReduceFailure& r) {
  Fields f(v, "reduce failure");
  f.integer("level", r.level);
  f.integer("batchIndex", r.batchIndex);
  if (auto error = decodeKind(f, r.kind)) return error;
  return decodeStrings(f.find("childHashes"), "childHashes", r.childHashes);
}

std::optional<Error> decode(const json& v, CloseoutTree::Node& n) {
  Fields f(v, "tree node");
  f.string("summary", n.summary);
  f.string("contentHash", n.contentHash);
  f.boolean("degraded", n.degraded);
  if (!f.ok()) return f.error();
  return decodeStrings(f.find("childHashes"), "childHashes", n.childHashes);
}

std::optional<Error> decode(const json& v, CloseoutTree::Level& level) {
  Fields f(v, "tree level");
  return decodeList(f.find("nodes"), "nodes", level.nodes);
}

std::optional<Error> decode(const json& v, CloseoutTree::Tree& tree) {
  Fields f(v, "tree");
  return decodeList(f.find("levels"), "levels", tree.levels);
}

// An instant written as seconds since 2001; integers and fractions alike.
void instant(Fields& f, const char* key, InstantMs& out) {
  double seconds = 0;
  f.number(key, seconds);
  if (f.ok()) out = ReferenceSeconds::instant(seconds);
}

std::optional<Error> decode(const json& v, CloudDispatchRecord& r) {
  Fields f(v, "dispatch record");
  f.optional("sessionId", r.sessionId);
  f.string("requestedModel", r.requestedModel);
  instant(f, "timestamp", r.timestamp);
  f.string("cwd", r.cwd);
  f.boolean("dispatchFailed", r.dispatchFailed);
  std::optional<double> endTime;
  f.optional("endTime", endTime);
  if (endTime) r.endTime = ReferenceSeconds::instant(*endTime);
  f.optional("rawStdout", r.rawStdout);
  f.optional("rawStderr", r.rawStderr);
  f.optional("reconstructed", r.reconstructed);
  f.optional("counterfactualResumeUsd", r.counterfactualResumeUsd);
  if (!f.ok()) return f.error();
  return std::nullopt;
}

std::optional<Error> decode(const json& v, CostRecord& c) {
  auto decoded = CloseoutJson::decodeCost(v);
  if (!decoded) return decoded.error();
  c = std::move(decoded).value();
  return std::nullopt;
}

std::optional<Error> decode(const json& v, CloseoutGenerationFailure& g) {
  Fields f(v, "generation failure");
  f.string("reason", g.reason);
  return decodeKind(f, g.kind);
}

std::optional<Error> decode(const json& v, CloseoutPricingFailure& p) {
  Fields f(v, "pricing failure");
  f.string("sessionId", p.sessionId);
  f.string("reason", p.reason);
  if (!f.ok()) return f.error();
  return std::nullopt;
}

std::optional<Error> decode(const json& v, CloseoutBakedArtifact& a) {
  Fields f(v, "baked artifact");
  f.integer("sourceTailOffset", a.sourceTailOffset);
  if (!f.ok()) return f.error();
  const json* document = f.find("document");
  const json* verdict = f.find("verdict");
  if (document == nullptr || verdict == nullptr) return jsonError("baked artifact: missing document or verdict");
  auto d = CloseoutJson::decodeDocument(*document);
  if (!d) return d.error();
  auto r = CloseoutJson::decodeVerdict(*verdict);
  if (!r) return r.error();
  a.document = std::move(d).value();
  a.verdict = std::move(r).value();
  return std::nullopt;
}

template <typename T>
std::optional<Error> decodeOptionalList(const Fields& f, const char* key, std::optional<std::vector<T>>& out) {
  const json* v = f.find(key);
  if (v == nullptr) return std::nullopt;
  return decodeList(v, key, out.emplace());
}

Result<CloseoutStoreState> decodeState(const json& v) {
  CloseoutStoreState s;
  Fields f(v, "closeout store");
  f.integer("schemaVersion", s.schemaVersion);
  f.string("sessionId", s.sessionId);
  f.integer("tailOffset", s.tailOffset);
  f.optional("lastGenerationAttemptTailOffset", s.lastGenerationAttemptTailOffset);
  if (!f.ok()) return f.error();
  const json* tree = f.find("tree");
  if (tree == nullptr) return jsonError("closeout store: missing tree");
  std::optional<Error> error = decode(*tree, s.tree);
  if (!error) error = decodeList(f.find("chunks"), "chunks", s.chunks);
  if (!error) error = decodeList(f.find("failures"), "failures", s.failures);
  if (!error) error = decodeList(f.find("reduceFailures"), "reduceFailures", s.reduceFailures);
  if (!error) error = decodeList(f.find("dispatchRecords"), "dispatchRecords", s.dispatchRecords);
  if (!error) error = decodeList(f.find("generationFailures"), "generationFailures", s.generationFailures);
  if (!error) error = decodeOptionalList(f, "costRecords", s.costRecords);
  if (!error) error = decodeOptionalList(f, "pricingFailures", s.pricingFailures);
  if (const json* baked = f.find("bakedArtifact"); !error && baked != nullptr)
    error = decode(*baked, s.bakedArtifact.emplace());
  if (error) return *error;
  return s;
}

}  // namespace

Result<std::string> CloseoutStoreState::encodedJSON() const {
  return CloseoutJson::guarded<std::string>([&]() -> Result<std::string> {
    if (!encodable(*this)) return jsonError("cannot encode a figure that is not finite");
    ordered_json j = {{"schemaVersion", schemaVersion},
                      {"sessionId", sessionId},
                      {"tailOffset", tailOffset},
                      {"chunks", listJSON(chunks)},
                      {"tree", toJSON(tree)},
                      {"failures", listJSON(failures)},
                      {"reduceFailures", listJSON(reduceFailures)},
                      {"dispatchRecords", listJSON(dispatchRecords)}};
    if (bakedArtifact)
      j["bakedArtifact"] = {{"document", CloseoutJson::toJSON(bakedArtifact->document)},
                            {"verdict", CloseoutJson::toJSON(bakedArtifact->verdict)},
                            {"sourceTailOffset", bakedArtifact->sourceTailOffset}};
    j["generationFailures"] = listJSON(generationFailures);
    putOptional(j, "lastGenerationAttemptTailOffset", lastGenerationAttemptTailOffset);
    if (costRecords) j["costRecords"] = listJSON(*costRecords);
    if (pricingFailures) j["pricingFailures"] = listJSON(*pricingFailures);
    // Invalid UTF-8 in a summary is replaced rather than failing the store.
    return j.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
  });
}

Result<CloseoutStoreState> CloseoutStoreState::decode(std::string_view bytes) {
  return CloseoutJson::guarded<CloseoutStoreState>([&]() -> Result<CloseoutStoreState> {
    auto value = CloseoutJson::parse(bytes);
    if (!value) return value.error();
    return decodeState(value.value());
  });
}

}  // namespace ostler
