#include "daemon/state/persisted_state_codec.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>

#include "daemon/feed/json_fields.h"
#include "transcript/text.h"

namespace ostler::PersistedStateCodec {
namespace {

static_assert(kPadding >= simdjson::SIMDJSON_PADDING);

// ---- Writing ----

// What a byte of a string needs: 0 nothing, 1 an escape, 2 a UTF-8 check.
constexpr std::array<uint8_t, 256> kByteClass = [] {
  std::array<uint8_t, 256> c{};
  for (int b = 0; b < 0x20; ++b) c[b] = 1;
  c['"'] = 1;
  c['\\'] = 1;
  for (int b = 0x80; b < 0x100; ++b) c[b] = 2;
  return c;
}();

// The text under construction: one buffer written through a cursor. Each
// write asks for room first; the buffer grows only when the guess of the
// whole size fell short. Written out in pieces instead, it hands what it
// holds to the sink whenever room runs short.
class Text {
 public:
  explicit Text(size_t capacity, const Sink* sink = nullptr) : bytes_(capacity, '\0'), sink_(sink) {}

  char* room(size_t n) {
    if (bytes_.size() - used_ < n) makeRoom(n);
    return bytes_.data() + used_;
  }
  void commit(const char* end) { used_ = static_cast<size_t>(end - bytes_.data()); }
  void push(char c) {
    *room(1) = c;
    ++used_;
  }
  void append(std::string_view s) {
    std::memcpy(room(s.size()), s.data(), s.size());
    used_ += s.size();
  }
  std::string take() && {
    bytes_.resize(used_);
    return std::move(bytes_);
  }
  // Hands the rest to the sink. Whether the sink took every piece.
  bool finish() {
    flush();
    return taken_;
  }

 private:
  void makeRoom(size_t n) {
    if (sink_ != nullptr) {
      flush();
      if (bytes_.size() >= n) return;
    }
    bytes_.resize(std::max(2 * bytes_.size(), used_ + n));
  }
  void flush() {
    // After a refused piece the rest is dropped: the file is lost anyway.
    if (used_ > 0 && taken_) taken_ = (*sink_)(std::string_view(bytes_.data(), used_));
    used_ = 0;
  }

  std::string bytes_;
  size_t used_ = 0;
  const Sink* sink_;
  bool taken_ = true;
};

void appendEscape(Text& out, unsigned char c) {
  switch (c) {
    case '"': out.append("\\\""); return;
    case '\\': out.append("\\\\"); return;
    case '\b': out.append("\\b"); return;
    case '\f': out.append("\\f"); return;
    case '\n': out.append("\\n"); return;
    case '\r': out.append("\\r"); return;
    case '\t': out.append("\\t"); return;
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      const char u[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(std::string_view(u, sizeof u));
    }
  }
}

// True when none of the eight bytes at `p` needs attention (class 0 above).
bool isPlainWord(const unsigned char* p) {
  constexpr uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080;
  uint64_t w;
  std::memcpy(&w, p, 8);
  auto hasZeroByte = [](uint64_t x) { return ((x - kOnes) & ~x & kHighs) != 0; };
  const bool below20 = ((w - 0x20 * kOnes) & ~w & kHighs) != 0;
  return (w & kHighs) == 0 && !below20 && !hasZeroByte(w ^ ('"' * kOnes)) && !hasZeroByte(w ^ ('\\' * kOnes));
}

// `s` escaped, without quotes. Runs of plain bytes are copied whole; at the
// first non-ASCII byte the rest is checked once, and repaired when it is not
// valid UTF-8.
void appendEscaped(Text& out, std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t run = 0;
  bool checked = false;
  for (size_t i = 0; i < s.size(); ++i) {
    // Eight plain bytes at a time: none below 0x20, none '"' or '\\', none
    // past ASCII. Most strings are ids and paths made of such bytes only.
    while (i + 8 <= s.size() && isPlainWord(p + i)) i += 8;
    if (i == s.size()) break;
    const uint8_t kind = kByteClass[p[i]];
    if (kind == 0) continue;
    if (kind == 2) {
      if (!checked && !text::isValidUtf8(s.substr(i))) {
        out.append(s.substr(run, i - run));
        appendEscaped(out, text::repairUtf8(s.substr(i)));
        return;
      }
      checked = true;
      continue;
    }
    out.append(s.substr(run, i - run));
    appendEscape(out, p[i]);
    run = i + 1;
  }
  out.append(s.substr(run));
}

void putString(Text& out, std::string_view s) {
  out.push('"');
  appendEscaped(out, s);
  out.push('"');
}

void putInt(Text& out, int64_t v) {
  char* p = out.room(24);
  out.commit(std::to_chars(p, p + 24, v).ptr);
}

void putDouble(Text& out, double v) {
  if (!std::isfinite(v)) {
    out.append("null");
    return;
  }
  char* p = out.room(40);
  char* end = std::to_chars(p, p + 32, v).ptr;
  if (std::find_if(p, end, [](char c) { return c == '.' || c == 'e'; }) == end) {
    *end++ = '.';
    *end++ = '0';
  }
  out.commit(end);
}

// An instant as seconds since 2001, the double referenceSeconds() gives.
// Instants are whole milliseconds, so that double is the one nearest to the
// decimal "seconds.mmm", and writing the decimal from the integer gives the
// same number as formatting the double, at a fraction of the cost.
void putInstant(Text& out, InstantMs t) {
  const int64_t ms = t - JsonFields::kReferenceEpochMs;
  constexpr int64_t kExact = int64_t(1) << 53;  // the double of every count below is exact
  if (ms <= -kExact || ms >= kExact) {
    putDouble(out, JsonFields::referenceSeconds(t));
    return;
  }
  const uint64_t magnitude = static_cast<uint64_t>(ms < 0 ? -ms : ms);
  char* p = out.room(32);
  if (ms < 0) *p++ = '-';
  p = std::to_chars(p, p + 24, magnitude / 1000).ptr;
  *p++ = '.';
  const auto fraction = static_cast<unsigned>(magnitude % 1000);
  *p++ = static_cast<char>('0' + fraction / 100);
  if (fraction % 100 != 0) {
    *p++ = static_cast<char>('0' + fraction / 10 % 10);
    if (fraction % 10 != 0) *p++ = static_cast<char>('0' + fraction % 10);
  }
  out.commit(p);
}

// One JSON object under construction. Keys are the writer's own literals,
// which need no escaping.
class ObjectWriter {
 public:
  explicit ObjectWriter(Text& out) : out_(out) { out_.push('{'); }
  ~ObjectWriter() { out_.push('}'); }
  ObjectWriter(const ObjectWriter&) = delete;
  ObjectWriter& operator=(const ObjectWriter&) = delete;

  Text& key(std::string_view k) {
    char* p = out_.room(k.size() + 4);
    if (!first_) *p++ = ',';
    first_ = false;
    *p++ = '"';
    std::memcpy(p, k.data(), k.size());
    p += k.size();
    *p++ = '"';
    *p++ = ':';
    out_.commit(p);
    return out_;
  }
  // A key of the data, such as a file path.
  Text& dataKey(std::string_view k) {
    if (!first_) out_.push(',');
    first_ = false;
    putString(out_, k);
    out_.push(':');
    return out_;
  }

  void integer(std::string_view k, int64_t v) { putInt(key(k), v); }
  void number(std::string_view k, double v) { putDouble(key(k), v); }
  void boolean(std::string_view k, bool v) { key(k).append(v ? std::string_view("true") : std::string_view("false")); }
  void string(std::string_view k, std::string_view v) { putString(key(k), v); }
  void instant(std::string_view k, InstantMs t) { putInstant(key(k), t); }
  // Optional keys are left out when unset, never written as null.
  void maybeString(std::string_view k, const std::optional<std::string>& v) {
    if (v) string(k, *v);
  }
  void maybeInstant(std::string_view k, const std::optional<InstantMs>& t) {
    if (t) instant(k, *t);
  }

 private:
  Text& out_;
  bool first_ = true;
};

void put(Text& out, const FileMediaState& m) {
  ObjectWriter o(out);
  o.integer("nonImageStreak", m.nonImageStreak);
  o.integer("openContextTokens", m.openContextTokens);
  o.number("openCostUSD", m.openCostUSD);
  o.boolean("openCountsForToday", m.openCountsForToday);
  o.maybeString("openFamily", m.openFamily);
  o.boolean("openIsDuplicate", m.openIsDuplicate);
  o.boolean("openIsStub", m.openIsStub);
  o.integer("openOutputTokens", m.openOutputTokens);
  o.maybeString("openRequestId", m.openRequestId);
  o.boolean("openTurnCounted", m.openTurnCounted);
  o.integer("pendingImageCount", m.pendingImageCount);
  o.integer("pendingImageTokens", m.pendingImageTokens);
  o.integer("runImageCount", m.runImageCount);
  o.maybeInstant("runLastImageAt", m.runLastImageAt);
  o.integer("runTokensSoFar", m.runTokensSoFar);
  o.number("runUsdSoFar", m.runUsdSoFar);
  o.string("sessionId", m.sessionId);
}

void put(Text& out, const SetupTaxCapture& c) {
  ObjectWriter o(out);
  o.integer("cache1h", c.cache1h);
  o.integer("cache5m", c.cache5m);
  o.integer("cacheRead", c.cacheRead);
  o.integer("input", c.input);
  o.string("model", c.model);
  o.integer("output", c.output);
  o.maybeString("requestId", c.requestId);
}

void put(Text& out, const SessionLiveState& s) {
  ObjectWriter o(out);
  o.maybeString("aiTitle", s.aiTitle);
  o.maybeInstant("contextTurnAt", s.contextTurnAt);
  o.maybeString("customTitle", s.customTitle);
  o.maybeString("firstUserMessage", s.firstUserMessage);
  o.maybeInstant("lastActivity", s.lastActivity);
  o.maybeInstant("lastCacheWriteAt", s.lastCacheWriteAt);
  o.boolean("lastCacheWriteWasEphemeral1h", s.lastCacheWriteWasEphemeral1h);
  o.integer("lastContextTokens", s.lastContextTokens);
  o.string("lastModel", s.lastModel);
  o.string("project", s.project);
  o.string("projectDirPath", s.projectDirPath);
  if (s.setupTax) put(o.key("setupTax"), *s.setupTax);
  o.maybeInstant("setupTaxAt", s.setupTaxAt);
}

void put(Text& out, const BurnEvent& b) {
  ObjectWriter o(out);
  o.number("costUSD", b.costUSD);
  o.boolean("isFableFamily", b.isFableFamily);
  o.instant("timestamp", b.timestamp);
  o.integer("tokens", b.tokens);
}

void put(Text& out, const WindowScan::ShapeFacts& f) {
  ObjectWriter o(out);
  o.maybeInstant("latestResetInstant", f.latestResetInstant);
  o.maybeString("latestResetPhrase", f.latestResetPhrase);
  if (f.wall) {
    ObjectWriter w(o.key("wall"));
    w.integer("tokens", f.wall->tokens);
    w.number("valueUSD", f.wall->valueUSD);
  }
}

void put(Text& out, const WindowScan::Walls& w) {
  ObjectWriter o(out);
  put(o.key("session"), w.session);
  put(o.key("week"), w.week);
  put(o.key("weekTopModel"), w.weekTopModel);
}

template <typename V, typename Put>
void putMap(Text& out, const std::map<std::string, V>& m, Put putValue) {
  ObjectWriter o(out);
  for (const auto& [k, v] : m) putValue(o.dataKey(k), v);
}

// Room for the whole text, so that it is built without reallocation: a
// generous guess from the sizes of the strings and the counts of records.
template <typename State>
size_t sizeGuess(const State& s) {
  size_t n = 4096 + s.root.size() + s.recentBurns.size() * 100;
  for (const auto& id : s.seenRequestIds) n += id.size() + 3;
  for (const auto& [path, offset] : s.fileOffsets) n += path.size() + 24;
  for (const auto& [path, m] : s.fileMediaState)
    n += path.size() + m.sessionId.size() + 520 + (m.openRequestId ? m.openRequestId->size() : 0);
  for (const auto& [id, st] : s.sessionState)
    n += id.size() + st.project.size() + st.projectDirPath.size() + st.lastModel.size() + 560 +
         (st.customTitle ? st.customTitle->size() : 0) + (st.aiTitle ? st.aiTitle->size() : 0) +
         (st.firstUserMessage ? st.firstUserMessage->size() : 0) +
         (st.setupTax ? st.setupTax->model.size() + (st.setupTax->requestId ? st.setupTax->requestId->size() : 0) : 0);
  for (const auto& [path, model] : s.subagentLastModel) n += path.size() + model.size() + 8;
  return n + n / 8;
}

// ---- Reading ----

using simdjson::dom::element;
using simdjson::dom::element_type;

// Thrown by the readers below on a missing or mistyped value; decode() turns
// it into nothing.
struct Invalid {};

[[noreturn]] void invalid() { throw Invalid{}; }

simdjson::dom::object asObject(element e) {
  if (e.type() != element_type::OBJECT) invalid();
  return e.get_object().value_unsafe();
}

// Integers must be written as integers, within the signed 64-bit range.
int64_t asInt(element e) {
  if (e.type() != element_type::INT64) invalid();
  return e.get_int64().value_unsafe();
}

double asDouble(element e) {
  switch (e.type()) {
    case element_type::DOUBLE: return e.get_double().value_unsafe();
    case element_type::INT64: return static_cast<double>(e.get_int64().value_unsafe());
    case element_type::UINT64: return static_cast<double>(e.get_uint64().value_unsafe());
    default: invalid();
  }
}

bool asBool(element e) {
  if (e.type() != element_type::BOOL) invalid();
  return e.get_bool().value_unsafe();
}

std::string_view asString(element e) {
  if (e.type() != element_type::STRING) invalid();
  return e.get_string().value_unsafe();
}

InstantMs asInstant(element e) {
  const double s = asDouble(e);
  if (!std::isfinite(s) || std::fabs(s) > 1e14) invalid();
  return JsonFields::fromReferenceSeconds(s);
}

// The values of one record's known keys, gathered in one pass over the
// object. Of a key given twice the last counts, as in any reader that builds
// a map of the object; a null reads as missing; unknown keys are ignored.
template <size_t N>
class Record {
 public:
  Record(element e, const std::array<std::string_view, N>& names) : names_(names) {
    size_t next = 0;
    for (const simdjson::dom::key_value_pair field : asObject(e)) {
      // The writer's order makes the name after the last match the likely one.
      size_t i = next, tried = 0;
      while (tried < N && names_[i] != field.key) {
        i = i + 1 == N ? 0 : i + 1;
        ++tried;
      }
      if (tried == N) continue;
      values_[i] = field.value;
      next = i + 1 == N ? 0 : i + 1;
    }
  }

  std::optional<element> find(std::string_view name) const {
    const std::optional<element>& v = values_[indexOf(name)];
    if (!v || v->type() == element_type::NULL_VALUE) return std::nullopt;
    return v;
  }
  element require(std::string_view name) const {
    auto v = find(name);
    if (!v) invalid();
    return *v;
  }

  int64_t requireInt(std::string_view name) const { return asInt(require(name)); }
  double requireDouble(std::string_view name) const { return asDouble(require(name)); }
  bool requireBool(std::string_view name) const { return asBool(require(name)); }
  std::string requireString(std::string_view name) const { return std::string(asString(require(name))); }
  InstantMs requireInstant(std::string_view name) const { return asInstant(require(name)); }

  template <typename T, typename As>
  std::optional<T> optional(std::string_view name, As as) const {
    auto v = find(name);
    if (!v) return std::nullopt;
    return T(as(*v));
  }
  std::optional<int64_t> optionalInt(std::string_view name) const { return optional<int64_t>(name, asInt); }
  std::optional<double> optionalDouble(std::string_view name) const { return optional<double>(name, asDouble); }
  std::optional<bool> optionalBool(std::string_view name) const { return optional<bool>(name, asBool); }
  std::optional<std::string> optionalString(std::string_view name) const {
    return optional<std::string>(name, asString);
  }
  std::optional<InstantMs> optionalInstant(std::string_view name) const {
    return optional<InstantMs>(name, asInstant);
  }

 private:
  size_t indexOf(std::string_view name) const {
    for (size_t i = 0; i < N; ++i)
      if (names_[i] == name) return i;
    std::terminate();  // a name missing from the record's list is a bug of this file
  }

  const std::array<std::string_view, N>& names_;
  std::array<std::optional<element>, N> values_;
};

// Each entry of an object in key order, a key given twice counting once
// with its last value. The writer's maps come in ascending order, which is
// checked first so that they are read without a second map.
template <typename F>
void forEachEntry(simdjson::dom::object o, F f) {
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
    for (const simdjson::dom::key_value_pair field : o) f(field.key, field.value);
    return;
  }
  std::map<std::string_view, element> last;
  for (const simdjson::dom::key_value_pair field : o) last.insert_or_assign(field.key, field.value);
  for (const auto& [k, v] : last) f(k, v);
}

template <typename V, typename Decode>
std::map<std::string, V> decodeMap(element e, Decode decodeValue) {
  std::map<std::string, V> out;
  forEachEntry(asObject(e), [&](std::string_view k, element v) { out.emplace_hint(out.end(), k, decodeValue(v)); });
  return out;
}

template <typename Decode>
void forEachItem(element e, Decode decodeItem) {
  if (e.type() != element_type::ARRAY) invalid();
  const simdjson::dom::array items = e.get_array().value_unsafe();
  for (const element item : items) decodeItem(item);
}

// Each record's keys in the order the writer puts them.
constexpr std::array<std::string_view, 17> kFileKeys = {
    "nonImageStreak",    "openContextTokens",  "openCostUSD",      "openCountsForToday", "openFamily",
    "openIsDuplicate",   "openIsStub",         "openOutputTokens", "openRequestId",      "openTurnCounted",
    "pendingImageCount", "pendingImageTokens", "runImageCount",    "runLastImageAt",     "runTokensSoFar",
    "runUsdSoFar",       "sessionId"};

// The image fields are required; the `open` fields came later and take the
// defaults of a new stub when missing.
FileMediaState decodeFile(element e) {
  const Record r(e, kFileKeys);
  FileMediaState m;
  m.sessionId = r.requireString("sessionId");
  m.pendingImageTokens = r.requireInt("pendingImageTokens");
  m.pendingImageCount = r.requireInt("pendingImageCount");
  m.runImageCount = r.requireInt("runImageCount");
  m.runUsdSoFar = r.requireDouble("runUsdSoFar");
  m.runTokensSoFar = r.requireInt("runTokensSoFar");
  m.nonImageStreak = r.requireInt("nonImageStreak");
  m.runLastImageAt = r.optionalInstant("runLastImageAt");
  m.openRequestId = r.optionalString("openRequestId");
  m.openCostUSD = r.optionalDouble("openCostUSD").value_or(0);
  m.openContextTokens = r.optionalInt("openContextTokens").value_or(0);
  m.openOutputTokens = r.optionalInt("openOutputTokens").value_or(0);
  m.openFamily = r.optionalString("openFamily");
  m.openCountsForToday = r.optionalBool("openCountsForToday").value_or(false);
  m.openIsStub = r.optionalBool("openIsStub").value_or(true);
  m.openTurnCounted = r.optionalBool("openTurnCounted").value_or(false);
  m.openIsDuplicate = r.optionalBool("openIsDuplicate").value_or(false);
  return m;
}

constexpr std::array<std::string_view, 7> kSetupTaxKeys = {"cache1h", "cache5m", "cacheRead", "input",
                                                           "model",   "output",  "requestId"};

SetupTaxCapture decodeSetupTax(element e) {
  const Record r(e, kSetupTaxKeys);
  SetupTaxCapture c;
  c.requestId = r.optionalString("requestId");
  c.input = r.requireInt("input");
  c.output = r.requireInt("output");
  c.cacheRead = r.requireInt("cacheRead");
  c.cache5m = r.requireInt("cache5m");
  c.cache1h = r.requireInt("cache1h");
  c.model = r.requireString("model");
  return c;
}

constexpr std::array<std::string_view, 13> kSessionKeys = {
    "aiTitle",          "contextTurnAt",  "customTitle", "firstUserMessage", "lastActivity",
    "lastCacheWriteAt", "lastCacheWriteWasEphemeral1h",  "lastContextTokens", "lastModel",
    "project",          "projectDirPath", "setupTax",    "setupTaxAt"};

SessionLiveState decodeSession(element e) {
  const Record r(e, kSessionKeys);
  SessionLiveState s;
  s.project = r.requireString("project");
  s.projectDirPath = r.requireString("projectDirPath");
  s.lastModel = r.requireString("lastModel");
  s.lastContextTokens = r.requireInt("lastContextTokens");
  s.lastCacheWriteWasEphemeral1h = r.requireBool("lastCacheWriteWasEphemeral1h");
  s.lastActivity = r.optionalInstant("lastActivity");
  s.contextTurnAt = r.optionalInstant("contextTurnAt");
  s.lastCacheWriteAt = r.optionalInstant("lastCacheWriteAt");
  s.setupTaxAt = r.optionalInstant("setupTaxAt");
  if (auto v = r.find("setupTax")) s.setupTax = decodeSetupTax(*v);
  s.customTitle = r.optionalString("customTitle");
  s.aiTitle = r.optionalString("aiTitle");
  s.firstUserMessage = r.optionalString("firstUserMessage");
  return s;
}

constexpr std::array<std::string_view, 4> kBurnKeys = {"costUSD", "isFableFamily", "timestamp", "tokens"};

BurnEvent decodeBurn(element e) {
  const Record r(e, kBurnKeys);
  return {r.requireInstant("timestamp"), r.requireDouble("costUSD"), r.requireBool("isFableFamily"),
          r.requireInt("tokens")};
}

constexpr std::array<std::string_view, 2> kWallKeys = {"tokens", "valueUSD"};
constexpr std::array<std::string_view, 3> kFactsKeys = {"latestResetInstant", "latestResetPhrase", "wall"};
constexpr std::array<std::string_view, 3> kWallsKeys = {"session", "week", "weekTopModel"};

WindowScan::ShapeFacts decodeFacts(element e) {
  const Record r(e, kFactsKeys);
  WindowScan::ShapeFacts f;
  if (auto v = r.find("wall")) {
    const Record w(*v, kWallKeys);
    f.wall = CutoffObservation{w.requireDouble("valueUSD"), w.requireInt("tokens")};
  }
  f.latestResetInstant = r.optionalInstant("latestResetInstant");
  f.latestResetPhrase = r.optionalString("latestResetPhrase");
  return f;
}

WindowScan::Walls decodeWalls(element e) {
  const Record r(e, kWallsKeys);
  return {decodeFacts(r.require("session")), decodeFacts(r.require("week")), decodeFacts(r.require("weekTopModel"))};
}

constexpr std::array<std::string_view, 17> kStateKeys = {
    "cachedWalls",         "fileMediaState",  "fileOffsets",       "newLinesSeen",  "newLinesSkipped",
    "quotaLastEventAt",    "quotaResetsNote", "recentBurns",       "root",          "seenRequestIds",
    "sessionState",        "stateVersion",    "subagentLastModel", "todayBoundary", "todaySpentUSD",
    "todayTokensByFamily", "todayTurns"};

std::optional<PersistedState> decodeState(element doc, const std::string& expectedRoot) {
  const Record r(doc, kStateKeys);
  // Version and root are judged before the rest, so that a file of another
  // version is refused for what it is even when its layout differs.
  if (r.optionalInt("stateVersion") != PersistedState::kVersion) return std::nullopt;
  if (r.optionalString("root") != expectedRoot) return std::nullopt;

  PersistedState s;
  s.stateVersion = PersistedState::kVersion;
  s.root = expectedRoot;
  s.fileOffsets = decodeMap<int64_t>(r.require("fileOffsets"), asInt);
  s.fileMediaState = decodeMap<FileMediaState>(r.require("fileMediaState"), decodeFile);
  s.sessionState = decodeMap<SessionLiveState>(r.require("sessionState"), decodeSession);
  s.quotaLastEventAt = r.optionalString("quotaLastEventAt");
  s.quotaResetsNote = r.optionalString("quotaResetsNote");
  s.newLinesSeen = r.requireInt("newLinesSeen");
  s.newLinesSkipped = r.requireInt("newLinesSkipped");
  s.todayBoundary = r.optionalInstant("todayBoundary");
  s.todaySpentUSD = r.requireDouble("todaySpentUSD");
  s.todayTurns = r.requireInt("todayTurns");
  s.todayTokensByFamily = decodeMap<int64_t>(r.require("todayTokensByFamily"), asInt);
  const element burns = r.require("recentBurns");
  if (burns.type() == element_type::ARRAY) s.recentBurns.reserve(burns.get_array().value_unsafe().size());
  forEachItem(burns, [&](element b) { s.recentBurns.push_back(decodeBurn(b)); });
  if (auto w = r.find("cachedWalls")) s.cachedWalls = decodeWalls(*w);
  s.subagentLastModel =
      decodeMap<std::string>(r.require("subagentLastModel"), [](element v) { return std::string(asString(v)); });
  const element ids = r.require("seenRequestIds");
  if (ids.type() == element_type::ARRAY) s.seenRequestIds.reserve(ids.get_array().value_unsafe().size());
  forEachItem(ids, [&](element id) { s.seenRequestIds.emplace_back(asString(id)); });
  return s;
}

}  // namespace

namespace {

// Pieces handed to a sink at a time: small enough to stay in the core's
// cache, large enough to take few writes.
constexpr size_t kPieceBytes = 256 << 10;

template <typename State>
void writeState(const State& s, Text& out) {
  {
    ObjectWriter o(out);
    if (s.cachedWalls) put(o.key("cachedWalls"), *s.cachedWalls);
    putMap(o.key("fileMediaState"), s.fileMediaState, [](Text& to, const FileMediaState& m) { put(to, m); });
    putMap(o.key("fileOffsets"), s.fileOffsets, putInt);
    o.integer("newLinesSeen", s.newLinesSeen);
    o.integer("newLinesSkipped", s.newLinesSkipped);
    o.maybeString("quotaLastEventAt", s.quotaLastEventAt);
    o.maybeString("quotaResetsNote", s.quotaResetsNote);
    {
      Text& burns = o.key("recentBurns");
      burns.push('[');
      for (size_t i = 0; i < s.recentBurns.size(); ++i) {
        if (i > 0) burns.push(',');
        put(burns, s.recentBurns[i]);
      }
      burns.push(']');
    }
    o.string("root", s.root);
    {
      Text& ids = o.key("seenRequestIds");
      ids.push('[');
      bool first = true;
      for (std::string_view id : s.seenRequestIds) {
        if (!first) ids.push(',');
        first = false;
        putString(ids, id);
      }
      ids.push(']');
    }
    putMap(o.key("sessionState"), s.sessionState, [](Text& to, const SessionLiveState& st) { put(to, st); });
    o.integer("stateVersion", s.stateVersion);
    putMap(o.key("subagentLastModel"), s.subagentLastModel, putString);
    o.maybeInstant("todayBoundary", s.todayBoundary);
    o.number("todaySpentUSD", s.todaySpentUSD);
    putMap(o.key("todayTokensByFamily"), s.todayTokensByFamily, putInt);
    o.integer("todayTurns", s.todayTurns);
  }
}

template <typename State>
std::string encodeState(const State& s) {
  Text out(sizeGuess(s));
  writeState(s, out);
  return std::move(out).take();
}

template <typename State>
bool encodeState(const State& s, const Sink& sink) {
  Text out(std::min(sizeGuess(s), kPieceBytes), &sink);
  writeState(s, out);
  return out.finish();
}

}  // namespace

std::string encode(const PersistedState& state) { return encodeState(state); }
std::string encode(const PersistedStateView& state) { return encodeState(state); }
bool encode(const PersistedState& state, const Sink& sink) { return encodeState(state, sink); }
bool encode(const PersistedStateView& state, const Sink& sink) { return encodeState(state, sink); }

std::optional<PersistedState> decode(std::string_view text, const std::string& expectedRoot, bool padded) {
  // A byte order mark is not JSON but is commonly allowed before it.
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  try {
    simdjson::dom::parser parser;
    element doc;
    if (parser.parse(text.data(), text.size(), !padded).get(doc) != simdjson::SUCCESS) return std::nullopt;
    return decodeState(doc, expectedRoot);
  } catch (const Invalid&) {
    return std::nullopt;
  } catch (const std::exception&) {  // out of memory on a huge file
    return std::nullopt;
  }
}

}  // namespace ostler::PersistedStateCodec
