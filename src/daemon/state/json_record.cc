#include "daemon/state/json_record.h"

namespace ostler {

using simdjson::dom::element;
using simdjson::dom::element_type;

RecordReader::RecordReader(element e, const std::vector<std::string_view>& keys)
    : keys_(keys), values_(keys.size()) {
  if (e.type() != element_type::OBJECT) {
    ok_ = false;
    return;
  }
  // One pass over the object gathers the record's keys. Records are written
  // in the order of their keys, so the key after the last one found is tried
  // first.
  const size_t n = keys.size();
  size_t next = 0;
  const simdjson::dom::object o = e.get_object().value_unsafe();
  for (const simdjson::dom::key_value_pair field : o) {
    size_t i = next, tried = 0;
    while (tried < n && keys_[i] != field.key) {
      i = i + 1 == n ? 0 : i + 1;
      ++tried;
    }
    if (tried == n) continue;
    values_[i] = field.value;
    next = i + 1 == n ? 0 : i + 1;
  }
}

std::optional<element> RecordReader::find(std::string_view k) const {
  for (size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i] != k) continue;
    const std::optional<element>& v = values_[i];
    if (!v || v->type() == element_type::NULL_VALUE) return std::nullopt;
    return v;
  }
  return std::nullopt;
}

// Integers must be written as integers, within the signed 64-bit range.
bool RecordReader::asInteger(element e, int64_t& out) {
  if (e.type() != element_type::INT64) return false;
  out = e.get_int64().value_unsafe();
  return true;
}

bool RecordReader::asNumber(element e, double& out) {
  switch (e.type()) {
    case element_type::DOUBLE: out = e.get_double().value_unsafe(); return true;
    case element_type::INT64: out = static_cast<double>(e.get_int64().value_unsafe()); return true;
    case element_type::UINT64: out = static_cast<double>(e.get_uint64().value_unsafe()); return true;
    default: return false;
  }
}

bool RecordReader::asBoolean(element e, bool& out) {
  if (e.type() != element_type::BOOL) return false;
  out = e.get_bool().value_unsafe();
  return true;
}

bool RecordReader::asString(element e, std::string& out) {
  if (e.type() != element_type::STRING) return false;
  out = std::string_view(e.get_string().value_unsafe());
  return true;
}

bool RecordReader::asInstant(element e, InstantMs& out) {
  double seconds = 0;
  if (!asNumber(e, seconds) || !std::isfinite(seconds) || std::fabs(seconds) > 1e14) return false;
  out = ReferenceSeconds::instant(seconds);
  return true;
}

bool RecordReader::forEachEntry(element e, const std::function<bool(std::string_view, element)>& f) {
  if (e.type() != element_type::OBJECT) return false;
  const simdjson::dom::object o = e.get_object().value_unsafe();
  // The writer's maps come in ascending order, which is checked first so that
  // they are read without a second map.
  bool ascending = true;
  std::optional<std::string_view> previous;
  for (const simdjson::dom::key_value_pair field : o) {
    if (previous && !(*previous < field.key)) {
      ascending = false;
      break;
    }
    previous = field.key;
  }
  if (ascending) {
    for (const simdjson::dom::key_value_pair field : o)
      if (!f(field.key, field.value)) return false;
    return true;
  }
  std::map<std::string_view, element> last;
  for (const simdjson::dom::key_value_pair field : o) last.insert_or_assign(field.key, field.value);
  for (const auto& [k, v] : last)
    if (!f(k, v)) return false;
  return true;
}

}  // namespace ostler
