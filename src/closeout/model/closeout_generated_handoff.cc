#include "closeout/model/closeout_generated_handoff.h"

#include <nlohmann/json.hpp>

namespace ostler::CloseoutGeneratedHandoff {
namespace {

// Insertion-ordered, so that the model meets the properties in the order
// in which it should write them.
using OrderedJson = nlohmann::ordered_json;

template <size_t N>
OrderedJson objectSchema(const std::array<Property, N>& properties, const OrderedJson& items) {
  OrderedJson props = OrderedJson::object();
  OrderedJson required = OrderedJson::array();
  for (const Property& p : properties) {
    OrderedJson prop = {{"type", p.type}, {"description", p.description}};
    if (p.type == "array") prop["items"] = items;
    props[std::string(p.name)] = std::move(prop);
    required.push_back(p.name);
  }
  return {{"type", "object"},
          {"properties", std::move(props)},
          {"required", std::move(required)},
          {"additionalProperties", false}};
}

Result<std::string> stringField(const nlohmann::json& object, std::string_view name, std::string_view where) {
  const auto it = object.find(name);
  if (it == object.end()) return Error{std::string(where) + " has no \"" + std::string(name) + "\""};
  if (!it->is_string()) return Error{std::string(where) + " \"" + std::string(name) + "\" is not a string"};
  return it->get<std::string>();
}

}  // namespace

std::string jsonSchema() { return objectSchema(kProperties, objectSchema(kDocUpdateProperties, {})).dump(); }

Result<GeneratedHandoffResult> decode(std::string_view json) {
  const nlohmann::json doc = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
  if (!doc.is_object()) return Error{"the handoff is not a JSON object"};
  GeneratedHandoffResult out;
  std::string* const fields[] = {&out.state, &out.decisions, &out.next, &out.filesTouched};
  for (size_t i = 0; i < 4; ++i) {
    Result<std::string> field = stringField(doc, kProperties[i].name, "the handoff");
    if (!field.ok()) return field.error();
    *fields[i] = std::move(field).value();
  }
  const auto updates = doc.find(kProperties[4].name);
  if (updates == doc.end() || !updates->is_array()) return Error{"the handoff has no \"docUpdates\" list"};
  for (const nlohmann::json& update : *updates) {
    if (!update.is_object()) return Error{"a documentation update is not an object"};
    DocUpdate u;
    std::string* const parts[] = {&u.path, &u.rationale, &u.patch};
    for (size_t i = 0; i < 3; ++i) {
      Result<std::string> part = stringField(update, kDocUpdateProperties[i].name, "a documentation update");
      if (!part.ok()) return part.error();
      *parts[i] = std::move(part).value();
    }
    out.docUpdates.push_back(std::move(u));
  }
  return out;
}

}  // namespace ostler::CloseoutGeneratedHandoff
