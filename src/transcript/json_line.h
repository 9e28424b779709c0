// One transcript line as a JSON document. `JsonLineParser` owns a reusable
// simdjson parser (one per thread) and applies the reading rules that hold for
// every consumer of transcript lines:
//   - the whole line must be valid JSON, and its top level an object;
//   - a UTF-8 byte order mark at the start is skipped;
//   - invalid UTF-8 is repaired to U+FFFD first, never failing the line;
//   - an escape of a lone surrogate ("\ud83d" without its partner) reads as
//     U+FFFD;
//   - a number too large for the parser is still valid JSON: it only fails
//     the line when it is read as an integer;
//   - nesting deeper than 1,024 levels fails.
// The fast path parses in place; the rare lines that need repair are
// rewritten into a scratch buffer first.
//
// The field helpers below implement the typing rule: a JSON null or a missing
// key is absent, a present key of the wrong type is a failure.
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostler {

class JsonLineParser {
 public:
  JsonLineParser();

  // Parses `line`. When `padded` is true the caller guarantees that
  // simdjson::SIMDJSON_PADDING readable bytes follow the line in memory.
  // Returns the top-level object, or nothing when the line fails. Views into
  // the result stay valid until the next call.
  [[nodiscard]] std::optional<simdjson::dom::object> parse(std::string_view line, bool padded);

 private:
  void reserve(size_t length);

  simdjson::dom::parser parser_;
  std::string scratch_;
  std::string repaired_;
};

// Rewrites lone surrogate escapes to "\ufffd" and numbers the parser cannot
// hold (integers past 64 bits, exponents past the double range) to a
// non-integer placeholder. Returns false when nothing needed rewriting.
bool rewriteForParser(std::string_view line, std::string* out);

namespace json {

// Of duplicate keys the first wins: each key of a record is taken once, and
// later copies are ignored. Bit `n` stands for the record's key number `n`.
struct SeenKeys {
  uint32_t bits = 0;
  bool first(int bit) {
    if (bits & (1u << bit)) return false;
    bits |= 1u << bit;
    return true;
  }
};

enum class Field { kAbsent, kPresent, kWrongType };

// A JSON string: absent on null, wrong type on anything but a string.
inline Field getString(simdjson::dom::element e, std::string_view* out) {
  switch (e.type()) {
    case simdjson::dom::element_type::STRING:
      *out = std::string_view(e.get_string().value_unsafe());
      return Field::kPresent;
    case simdjson::dom::element_type::NULL_VALUE:
      return Field::kAbsent;
    default:
      return Field::kWrongType;
  }
}

// A JSON integer within the signed 64-bit range, written without fraction or
// exponent; any other number is the wrong type.
inline Field getInt64(simdjson::dom::element e, int64_t* out) {
  switch (e.type()) {
    case simdjson::dom::element_type::INT64:
      *out = e.get_int64().value_unsafe();
      return Field::kPresent;
    case simdjson::dom::element_type::NULL_VALUE:
      return Field::kAbsent;
    default:
      return Field::kWrongType;
  }
}

inline Field getBool(simdjson::dom::element e, bool* out) {
  switch (e.type()) {
    case simdjson::dom::element_type::BOOL:
      *out = e.get_bool().value_unsafe();
      return Field::kPresent;
    case simdjson::dom::element_type::NULL_VALUE:
      return Field::kAbsent;
    default:
      return Field::kWrongType;
  }
}

inline Field getObject(simdjson::dom::element e, simdjson::dom::object* out) {
  switch (e.type()) {
    case simdjson::dom::element_type::OBJECT:
      *out = e.get_object().value_unsafe();
      return Field::kPresent;
    case simdjson::dom::element_type::NULL_VALUE:
      return Field::kAbsent;
    default:
      return Field::kWrongType;
  }
}

// Optional-returning forms; `ok` turns false on a wrong type.
inline std::optional<std::string_view> optString(simdjson::dom::element e, bool& ok) {
  std::string_view v;
  switch (getString(e, &v)) {
    case Field::kPresent: return v;
    case Field::kAbsent: return std::nullopt;
    case Field::kWrongType: ok = false; return std::nullopt;
  }
  return std::nullopt;
}

inline std::optional<int64_t> optInt64(simdjson::dom::element e, bool& ok) {
  int64_t v = 0;
  switch (getInt64(e, &v)) {
    case Field::kPresent: return v;
    case Field::kAbsent: return std::nullopt;
    case Field::kWrongType: ok = false; return std::nullopt;
  }
  return std::nullopt;
}

inline std::optional<bool> optBool(simdjson::dom::element e, bool& ok) {
  bool v = false;
  switch (getBool(e, &v)) {
    case Field::kPresent: return v;
    case Field::kAbsent: return std::nullopt;
    case Field::kWrongType: ok = false; return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace json
}  // namespace ostler
