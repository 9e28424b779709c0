#include "daemon/feed/json_fields.h"

#include <cmath>

namespace ostler::JsonFields {
namespace {

[[noreturn]] void fail(const char* key, const char* what) {
  throw DecodeError(std::string(key) + ": " + what);
}

}  // namespace

const nlohmann::json& object(const nlohmann::json& j, const char* what) {
  if (!j.is_object()) fail(what, "not an object");
  return j;
}

const nlohmann::json* find(const nlohmann::json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return nullptr;
  return &*it;
}

const nlohmann::json& require(const nlohmann::json& j, const char* key) {
  const nlohmann::json* v = find(j, key);
  if (v == nullptr) fail(key, "missing");
  return *v;
}

int64_t asInt(const nlohmann::json& v, const char* key) {
  if (v.is_number_integer()) {
    if (v.is_number_unsigned() && v.get<uint64_t>() > uint64_t(INT64_MAX)) fail(key, "out of range");
    return v.get<int64_t>();
  }
  fail(key, "not an integer");
}

double asDouble(const nlohmann::json& v, const char* key) {
  if (!v.is_number()) fail(key, "not a number");
  return v.get<double>();
}

bool asBool(const nlohmann::json& v, const char* key) {
  if (!v.is_boolean()) fail(key, "not a boolean");
  return v.get<bool>();
}

std::string asString(const nlohmann::json& v, const char* key) {
  if (!v.is_string()) fail(key, "not a string");
  return v.get<std::string>();
}

int64_t requireInt(const nlohmann::json& j, const char* key) { return asInt(require(j, key), key); }
double requireDouble(const nlohmann::json& j, const char* key) { return asDouble(require(j, key), key); }
bool requireBool(const nlohmann::json& j, const char* key) { return asBool(require(j, key), key); }
std::string requireString(const nlohmann::json& j, const char* key) { return asString(require(j, key), key); }

std::optional<int64_t> optionalInt(const nlohmann::json& j, const char* key) {
  const nlohmann::json* v = find(j, key);
  if (v == nullptr) return std::nullopt;
  return asInt(*v, key);
}

std::optional<double> optionalDouble(const nlohmann::json& j, const char* key) {
  const nlohmann::json* v = find(j, key);
  if (v == nullptr) return std::nullopt;
  return asDouble(*v, key);
}

std::optional<bool> optionalBool(const nlohmann::json& j, const char* key) {
  const nlohmann::json* v = find(j, key);
  if (v == nullptr) return std::nullopt;
  return asBool(*v, key);
}

std::optional<std::string> optionalString(const nlohmann::json& j, const char* key) {
  const nlohmann::json* v = find(j, key);
  if (v == nullptr) return std::nullopt;
  return asString(*v, key);
}

}  // namespace ostler::JsonFields
