// One description of a saved record serves both directions. Each record has
// a `describe(io, record)` that names its keys, in byte order, with the
// member each one holds; `RecordWriter` writes them in that order and
// `RecordReader` reads them back, so that a key cannot be written one way
// and read another.
//
// Reading is strict and fails as a value: a required key missing or null, or
// any key of the wrong type, fails the record (`ok()` turns false and stays
// so), and the caller drops the whole file. Unknown keys are ignored; of a key
// given twice the last counts; a null reads as a missing key. A member of a
// std::optional type is left out of the text when unset and read as unset
// when missing; a plain member is `kRequired`, or `kDefaulted` to keep its
// default when missing (a key that older writers did not write).
#pragma once

#include <simdjson.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "daemon/state/json_writer.h"

namespace ostler {

enum class Presence { kRequired, kDefaulted };

// A record type, const or not: `describe` takes both.
template <typename R, typename T>
concept RecordOf = std::same_as<std::remove_const_t<R>, T>;

// The names a record's description gives, in order.
class RecordKeys {
 public:
  template <typename V>
  void integer(std::string_view k, V&&, Presence = Presence::kRequired) { keys.push_back(k); }
  template <typename V>
  void number(std::string_view k, V&&, Presence = Presence::kRequired) { keys.push_back(k); }
  template <typename V>
  void boolean(std::string_view k, V&&, Presence = Presence::kRequired) { keys.push_back(k); }
  template <typename V>
  void string(std::string_view k, V&&, Presence = Presence::kRequired) { keys.push_back(k); }
  template <typename V>
  void instant(std::string_view k, V&&, Presence = Presence::kRequired) { keys.push_back(k); }
  template <typename V>
  void record(std::string_view k, V&&) { keys.push_back(k); }
  template <typename V>
  void map(std::string_view k, V&&) { keys.push_back(k); }
  template <typename V>
  void array(std::string_view k, V&&) { keys.push_back(k); }

  std::vector<std::string_view> keys;
};

template <typename R>
const std::vector<std::string_view>& keysOf() {
  static const std::vector<std::string_view> keys = [] {
    RecordKeys collector;
    R sample{};
    describe(collector, sample);
    return std::move(collector.keys);
  }();
  return keys;
}

class RecordWriter {
 public:
  explicit RecordWriter(JsonWriter& out) : out_(out) {}

  template <typename R>
  static void write(JsonWriter& out, const R& r) {
    out.raw('{');
    RecordWriter w(out);
    describe(w, r);
    out.raw('}');
  }

  void integer(std::string_view k, int64_t v, Presence = Presence::kRequired) {
    key(k);
    out_.integer(v);
  }
  void number(std::string_view k, double v, Presence = Presence::kRequired) {
    key(k);
    out_.number(v);
  }
  void boolean(std::string_view k, bool v, Presence = Presence::kRequired) {
    key(k);
    out_.boolean(v);
  }
  void string(std::string_view k, const std::string& v, Presence = Presence::kRequired) {
    key(k);
    out_.string(v);
  }
  void string(std::string_view k, const std::optional<std::string>& v) {
    if (v) string(k, *v);
  }
  void instant(std::string_view k, InstantMs t, Presence = Presence::kRequired) {
    key(k);
    out_.instant(t);
  }
  void instant(std::string_view k, const std::optional<InstantMs>& t) {
    if (t) instant(k, *t);
  }
  template <typename R>
  void record(std::string_view k, const R& r) {
    key(k);
    write(out_, r);
  }
  template <typename R>
  void record(std::string_view k, const std::optional<R>& r) {
    if (r) record(k, *r);
  }
  template <typename V>
  void map(std::string_view k, const std::map<std::string, V>& m) {
    key(k);
    out_.raw('{');
    bool first = true;
    for (const auto& [name, v] : m) {
      out_.dataKey(name, first);
      first = false;
      value(v);
    }
    out_.raw('}');
  }
  template <typename Items>
  void array(std::string_view k, const Items& items) {
    key(k);
    out_.raw('[');
    bool first = true;
    for (const auto& item : items) {
      if (!first) out_.raw(',');
      first = false;
      value(item);
    }
    out_.raw(']');
  }

 private:
  void key(std::string_view k) {
    out_.key(k, first_);
    first_ = false;
  }
  void value(int64_t v) { out_.integer(v); }
  void value(std::string_view v) { out_.string(v); }
  void value(const std::string& v) { out_.string(v); }
  template <typename R>
  void value(const R& r) {
    write(out_, r);
  }

  JsonWriter& out_;
  bool first_ = true;
};

class RecordReader {
 public:
  using element = simdjson::dom::element;

  // Reads `r` from `e`. False when `e` is no object of the record.
  template <typename R>
  [[nodiscard]] static bool read(element e, R& r) {
    RecordReader reader(e, keysOf<R>());
    if (reader.ok_) describe(reader, r);
    return reader.ok_;
  }

  void integer(std::string_view k, int64_t& v, Presence p = Presence::kRequired) { take(k, v, p, &asInteger); }
  void integer(std::string_view k, std::optional<int64_t>& v) { takeOptional(k, v, &asInteger); }
  void number(std::string_view k, double& v, Presence p = Presence::kRequired) { take(k, v, p, &asNumber); }
  void boolean(std::string_view k, bool& v, Presence p = Presence::kRequired) { take(k, v, p, &asBoolean); }
  void string(std::string_view k, std::string& v, Presence p = Presence::kRequired) { take(k, v, p, &asString); }
  void string(std::string_view k, std::optional<std::string>& v) { takeOptional(k, v, &asString); }
  void instant(std::string_view k, InstantMs& v, Presence p = Presence::kRequired) { take(k, v, p, &asInstant); }
  void instant(std::string_view k, std::optional<InstantMs>& v) { takeOptional(k, v, &asInstant); }
  template <typename R>
  void record(std::string_view k, R& r) {
    take(k, r, Presence::kRequired, &read<R>);
  }
  template <typename R>
  void record(std::string_view k, std::optional<R>& r) {
    takeOptional(k, r, &read<R>);
  }
  template <typename V>
  void map(std::string_view k, std::map<std::string, V>& m) {
    take(k, m, Presence::kRequired, &asMap<V>);
  }
  template <typename V>
  void array(std::string_view k, std::vector<V>& items) {
    take(k, items, Presence::kRequired, &asArray<V>);
  }

 private:
  RecordReader(element e, const std::vector<std::string_view>& keys);

  // The value of `k`, when it is there and not null.
  [[nodiscard]] std::optional<element> find(std::string_view k) const;

  template <typename T>
  void take(std::string_view k, T& out, Presence p, bool (*as)(element, T&)) {
    if (!ok_) return;
    auto v = find(k);
    if (!v)
      ok_ = p == Presence::kDefaulted;
    else
      ok_ = as(*v, out);
  }
  template <typename T>
  void takeOptional(std::string_view k, std::optional<T>& out, bool (*as)(element, T&)) {
    if (!ok_) return;
    auto v = find(k);
    if (!v) {
      out.reset();
      return;
    }
    ok_ = as(*v, out.emplace());
  }

  static bool asInteger(element e, int64_t& out);
  static bool asNumber(element e, double& out);
  static bool asBoolean(element e, bool& out);
  static bool asString(element e, std::string& out);
  static bool asInstant(element e, InstantMs& out);
  template <typename V>
  static bool asValue(element e, V& out) {
    if constexpr (std::is_same_v<V, int64_t>)
      return asInteger(e, out);
    else if constexpr (std::is_same_v<V, std::string>)
      return asString(e, out);
    else
      return read(e, out);
  }
  // A map's entries in key order, a key given twice counting once with its
  // last value.
  template <typename V>
  static bool asMap(element e, std::map<std::string, V>& out) {
    out.clear();
    return forEachEntry(e, [&out](std::string_view k, element v) {
      return asValue(v, out.emplace_hint(out.end(), std::string(k), V{})->second);
    });
  }
  template <typename V>
  static bool asArray(element e, std::vector<V>& out) {
    out.clear();
    if (e.type() != simdjson::dom::element_type::ARRAY) return false;
    const simdjson::dom::array items = e.get_array().value_unsafe();
    out.reserve(items.size());
    for (const element item : items)
      if (!asValue(item, out.emplace_back())) return false;
    return true;
  }
  static bool forEachEntry(element e, const std::function<bool(std::string_view, element)>& f);

  const std::vector<std::string_view>& keys_;
  std::vector<std::optional<element>> values_;
  bool ok_ = true;
};

}  // namespace ostler
