// Strict reading of the engine's own JSON files (state file, feed records)
// through nlohmann::json. A required key that is missing, null or of the
// wrong type throws JsonFields::DecodeError; an optional key that is missing
// or null reads as nothing, and of the wrong type throws too. Integers must
// be written as integers; doubles take any number. Each file's one decoding
// entry point catches the error and turns it into a value.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "transcript/iso8601.h"

namespace ostler::JsonFields {

struct DecodeError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The object itself; throws unless `j` is a JSON object.
const nlohmann::json& object(const nlohmann::json& j, const char* what);

// The value under `key`, or nullptr when missing or null.
const nlohmann::json* find(const nlohmann::json& j, const char* key);
const nlohmann::json& require(const nlohmann::json& j, const char* key);

int64_t asInt(const nlohmann::json& v, const char* key);
double asDouble(const nlohmann::json& v, const char* key);
bool asBool(const nlohmann::json& v, const char* key);
std::string asString(const nlohmann::json& v, const char* key);

int64_t requireInt(const nlohmann::json& j, const char* key);
double requireDouble(const nlohmann::json& j, const char* key);
bool requireBool(const nlohmann::json& j, const char* key);
std::string requireString(const nlohmann::json& j, const char* key);

std::optional<int64_t> optionalInt(const nlohmann::json& j, const char* key);
std::optional<double> optionalDouble(const nlohmann::json& j, const char* key);
std::optional<bool> optionalBool(const nlohmann::json& j, const char* key);
std::optional<std::string> optionalString(const nlohmann::json& j, const char* key);


}  // namespace ostler::JsonFields
