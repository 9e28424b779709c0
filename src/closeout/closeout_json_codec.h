// The JSON forms of the closeout's records, shared by the encoders of this
// library: the document and the verdict in their own files, and the same
// records inside a closeout store. Only the library's own sources include
// this header; the JSON library and its exceptions stay inside it.
// Encoders give objects with keys in the records' declaration order; a
// caller that wants sorted keys converts to `json`, whose objects sort.
#pragma once

#include <cstdint>
#include <exception>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "closeout/checks.h"
#include "closeout/closeout_document.h"
#include "platform/result.h"

namespace ostler::CloseoutJson {

using nlohmann::json;
using nlohmann::ordered_json;

// An error that names no file.
inline Error jsonError(std::string message) {
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

// Parses `bytes`; fails on anything that is not JSON.
[[nodiscard]] Result<json> parse(std::string_view bytes);

// Runs `body`, turning anything the JSON library throws into an error.
template <typename T, typename Body>
Result<T> guarded(Body body) {
  try {
    return body();
  } catch (const std::exception& e) {
    return jsonError(std::string("JSON: ") + e.what());
  }
}

// Whether every figure of `d` has a JSON form (none is NaN or infinite).
[[nodiscard]] bool encodable(const CloseoutDocument& d);

[[nodiscard]] ordered_json toJSON(const CostRecord& c);
[[nodiscard]] ordered_json toJSON(const CloseoutDocument& d);
[[nodiscard]] ordered_json toJSON(const Checks::Verdict& v);

// Decoding fails on a missing required key, a wrong type, or a value that
// is not an object; unknown keys are ignored and null reads as absent.
[[nodiscard]] Result<CostRecord> decodeCost(const json& v);
[[nodiscard]] Result<CloseoutDocument> decodeDocument(const json& v);
[[nodiscard]] Result<Checks::Verdict> decodeVerdict(const json& v);

}  // namespace ostler::CloseoutJson
