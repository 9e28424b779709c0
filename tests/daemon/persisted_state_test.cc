#include "daemon/persisted_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>

#include "daemon/json_fields.h"
#include "daemon/live_engine.h"
#include "daemon/persisted_state_codec.h"
#include "line_builder.h"
#include "state_tree_codec.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;
using nlohmann::json;

// ---- The reference: the state as an nlohmann::json tree, dumped and
// parsed by that library. The codec must write text of the same meaning and
// accept and refuse exactly what this reader does.

json treeOf(const PersistedState& s) {
  json j = json::object();
  j["stateVersion"] = s.stateVersion;
  j["root"] = s.root;
  j["fileOffsets"] = s.fileOffsets;
  json& media = j["fileMediaState"] = json::object();
  for (const auto& [path, m] : s.fileMediaState) media[path] = StateTree::toJson(m);
  json& sessions = j["sessionState"] = json::object();
  for (const auto& [id, st] : s.sessionState) sessions[id] = StateTree::toJson(st);
  if (s.quotaLastEventAt) j["quotaLastEventAt"] = *s.quotaLastEventAt;
  if (s.quotaResetsNote) j["quotaResetsNote"] = *s.quotaResetsNote;
  j["newLinesSeen"] = s.newLinesSeen;
  j["newLinesSkipped"] = s.newLinesSkipped;
  if (s.todayBoundary) j["todayBoundary"] = JsonFields::referenceSeconds(*s.todayBoundary);
  j["todaySpentUSD"] = s.todaySpentUSD;
  j["todayTurns"] = s.todayTurns;
  j["todayTokensByFamily"] = s.todayTokensByFamily;
  json& burns = j["recentBurns"] = json::array();
  for (const auto& b : s.recentBurns) burns.push_back(StateTree::toJson(b));
  if (s.cachedWalls) j["cachedWalls"] = StateTree::toJson(*s.cachedWalls);
  j["subagentLastModel"] = s.subagentLastModel;
  j["seenRequestIds"] = s.seenRequestIds;
  return j;
}

std::string treeText(const PersistedState& s) {
  return treeOf(s).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<PersistedState> treeLoad(const std::string& text, const std::string& root) {
  using namespace JsonFields;
  auto map = [](const json& j, const char* key, auto decode) {
    std::map<std::string, decltype(decode(json()))> out;
    for (const auto& [k, v] : object(require(j, key), key).items()) out.emplace(k, decode(v));
    return out;
  };
  auto array = [](const json& j, const char* key) -> const json& {
    const json& a = require(j, key);
    if (!a.is_array()) throw DecodeError(key);
    return a;
  };
  try {
    const json j = json::parse(text);
    if (!j.is_object() || optionalInt(j, "stateVersion") != PersistedState::kVersion ||
        optionalString(j, "root") != root)
      return std::nullopt;
    PersistedState s;
    s.stateVersion = requireInt(j, "stateVersion");
    s.root = requireString(j, "root");
    s.fileOffsets = map(j, "fileOffsets", [](const json& v) { return asInt(v, "fileOffsets"); });
    s.fileMediaState = map(j, "fileMediaState", StateTree::fileMediaStateFromJson);
    s.sessionState = map(j, "sessionState", StateTree::sessionLiveStateFromJson);
    s.quotaLastEventAt = optionalString(j, "quotaLastEventAt");
    s.quotaResetsNote = optionalString(j, "quotaResetsNote");
    s.newLinesSeen = requireInt(j, "newLinesSeen");
    s.newLinesSkipped = requireInt(j, "newLinesSkipped");
    s.todayBoundary = optionalInstant(j, "todayBoundary");
    s.todaySpentUSD = requireDouble(j, "todaySpentUSD");
    s.todayTurns = requireInt(j, "todayTurns");
    s.todayTokensByFamily = map(j, "todayTokensByFamily", [](const json& v) { return asInt(v, "tokens"); });
    for (const auto& b : array(j, "recentBurns")) s.recentBurns.push_back(StateTree::burnEventFromJson(b));
    if (const auto* w = find(j, "cachedWalls")) s.cachedWalls = StateTree::wallsFromJson(*w);
    s.subagentLastModel = map(j, "subagentLastModel", [](const json& v) { return asString(v, "model"); });
    for (const auto& id : array(j, "seenRequestIds")) s.seenRequestIds.push_back(asString(id, "id"));
    return s;
  } catch (const DecodeError&) {
    return std::nullopt;
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

// "" when equal, else the two texts around their first difference.
std::string firstDifference(const std::string& a, const std::string& b) {
  if (a == b) return "";
  size_t i = std::mismatch(a.begin(), a.begin() + static_cast<long>(std::min(a.size(), b.size())), b.begin()).first -
             a.begin();
  size_t from = i < 40 ? 0 : i - 40;
  return "at " + std::to_string(i) + ":\n  " + a.substr(from, 80) + "\n  " + b.substr(from, 80);
}

// ---- States to write and read.

PersistedState full() {
  PersistedState s;
  s.root = "/home/me/.claude/projects";
  s.fileOffsets = {{"/p/a.jsonl", 1234}, {"/p/b.jsonl", 0}};
  FileMediaState m{"a", 1500, 2, 3, 0.0045, 4500, at("2026-03-10T10:00:00.250Z"), 1, "req", 0.125, 50'000, 700,
                   "opus", true, false, true, true};
  s.fileMediaState = {{"/p/a.jsonl", m}, {"/p/b.jsonl", FileMediaState{}}};
  s.fileMediaState["/p/b.jsonl"].sessionId = "b";
  SessionLiveState st{"app", "/p", at("2026-03-10T10:00:00Z"), "claude-opus-4", 42'000, at("2026-03-10T09:59:00Z"),
                      at("2026-03-10T09:58:00Z"), true, at("2026-03-10T09:00:00Z"),
                      SetupTaxCapture{"req0", 1, 2, 3, 4, 5, "claude-opus-4"}, "Custom", "AI title", "hello"};
  s.sessionState = {{"a", st}, {"b", SessionLiveState{}}};
  s.sessionState["b"].project = "b";
  s.quotaLastEventAt = "2026-03-10T08:00:00.000Z";
  s.quotaResetsNote = "resets 3pm";
  s.newLinesSeen = 10;
  s.newLinesSkipped = 1;
  s.todayBoundary = at("2026-03-10T00:00:00Z");
  s.todaySpentUSD = 0.1 + 0.2;
  s.todayTurns = 3;
  s.todayTokensByFamily = {{"opus", 99}, {"sonnet", 7}};
  s.recentBurns = {{at("2026-03-10T10:00:00Z"), 0.5, true, 42}, {at("2026-03-10T10:00:01.5Z"), 3.0, false, 0}};
  WindowScan::Walls walls;
  walls.session = {CutoffObservation{35.0, 3500}, at("2026-03-10T15:00:00Z"), "resets 3:00pm (UTC)"};
  walls.week = {CutoffObservation{0.000001, 1}, std::nullopt, std::nullopt};
  s.cachedWalls = walls;
  s.subagentLastModel = {{"/p/a/subagents/x.jsonl", "claude-haiku-4"}};
  s.seenRequestIds = {"req", "other"};
  return s;
}

PersistedState sparse() {
  PersistedState s = full();
  s.quotaLastEventAt = s.quotaResetsNote = std::nullopt;
  s.todayBoundary = std::nullopt;
  s.cachedWalls = std::nullopt;
  for (auto& [path, m] : s.fileMediaState) {
    m.runLastImageAt = std::nullopt;
    m.openRequestId = m.openFamily = std::nullopt;
  }
  for (auto& [id, st] : s.sessionState) {
    st.lastActivity = st.contextTurnAt = st.lastCacheWriteAt = st.setupTaxAt = std::nullopt;
    st.setupTax = std::nullopt;
    st.customTitle = st.aiTitle = st.firstUserMessage = std::nullopt;
  }
  return s;
}

// Strings that need escaping, are not ASCII, or are not UTF-8 at all, in
// every place a string is written, map keys included. Replaced strings may
// collide as keys, which the reader then takes as a key given twice.
PersistedState awkwardStrings() {
  std::vector<std::string> strings = {
      "", "quote \" backslash \\ slash /", std::string("nul \0 inside", 12), "\x7f\x01\x1f\b\f\n\r\t",
      "é 日本 🙂", "\xff", "\x80 lone continuation", "\xc3", "cut \xe6\x97", "\xe0\x80\x80 overlong",
      "\xed\xa0\x80 surrogate", "\xf4\x90\x80\x80 past the last code point", "\xf0\x9f\x99 then text", "\xc0\xaf",
      "mixed \xe6\x97\xa5\xff\xe6\x97\xa5 \"\n", "1234567\xff", "12345678\xe6\x97\xa5"};
  std::string controls;
  for (char c = 0; c < 0x20; ++c) controls += c;
  strings.push_back(controls);
  // Random bytes, weighted to the ones that start, continue or break a
  // sequence, against the library's replacement byte for byte.
  std::mt19937 rng(7);
  const std::string pool = "a\"\\\n\x01\xc3\xa9\xe6\x97\xa5\xf0\x9f\x99\x82\x80\xbf\xc0\xed\xa0\xf4\x90\xf5\xff";
  for (int n = 0; n < 400; ++n) {
    std::string r(rng() % 14, ' ');
    for (char& c : r) c = rng() % 4 == 0 ? static_cast<char>(rng()) : pool[rng() % pool.size()];
    strings.push_back(r);
  }

  PersistedState s;
  s.root = "/r";
  for (size_t i = 0; i < strings.size(); ++i) {
    const std::string& str = strings[i];
    s.seenRequestIds.push_back(str);
    s.fileOffsets[str] = static_cast<int64_t>(i);
    s.subagentLastModel[str] = str;
    s.todayTokensByFamily[str] = 1;
    FileMediaState& m = s.fileMediaState[str];
    m.sessionId = str;
    m.openRequestId = m.openFamily = str;
    SessionLiveState& st = s.sessionState[str];
    st.project = st.projectDirPath = st.lastModel = str;
    st.aiTitle = str;
    st.setupTax = SetupTaxCapture{str, 1, 2, 3, 4, 5, str};
  }
  s.quotaLastEventAt = controls;
  s.quotaResetsNote = "\xe2\x82";
  WindowScan::Walls walls;
  walls.week.latestResetPhrase = "resets \xff 3pm";
  s.cachedWalls = walls;
  return s;
}

// Integers at their limits, doubles that are hard to write in few digits,
// and instants on both sides of 2001 and to the millisecond.
PersistedState numbers() {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max(), kMin = std::numeric_limits<int64_t>::min();
  constexpr InstantMs kEpoch = JsonFields::kReferenceEpochMs;
  PersistedState s;
  s.root = "/n";
  s.newLinesSeen = kMax;
  s.newLinesSkipped = kMin;
  s.todayTurns = -1;
  s.fileOffsets = {{"max", kMax}, {"min", kMin}, {"zero", 0}, {"2^53+1", (int64_t(1) << 53) + 1}};
  s.todaySpentUSD = 12345.678901234;
  s.todayBoundary = kEpoch - 1;
  const std::vector<double> doubles = {0.0,    -0.0,    0.1,   1e-7,  12345.678901234, 0.1 + 0.2, 3.0,  -2.5,
                                       1e15,   1e16,    1e21,  1e22,  123456789012345680.0, 1.5e300, 5e-324,
                                       DBL_MAX, -DBL_MIN, 2.2250738585072009e-308, 9007199254740993.0, 1.0 / 3};
  const std::vector<InstantMs> instants = {kEpoch,          kEpoch + 1,       kEpoch - 1,    kEpoch + 10,
                                           kEpoch - 999,    kEpoch + 100'000, kEpoch - 1'500,
                                           at("2026-03-10T10:00:00.250Z"), at("2099-12-31T23:59:59.999Z"),
                                           kEpoch + 99'999'999'999'999'999 / 1000, kEpoch - 5'000'000'000'123};
  for (size_t i = 0; i < doubles.size(); ++i) {
    s.recentBurns.push_back({instants[i % instants.size()], doubles[i], i % 2 == 0, kMax - int64_t(i)});
    FileMediaState& m = s.fileMediaState[std::to_string(i)];
    m.runUsdSoFar = doubles[i];
    m.openCostUSD = -doubles[i];
  }
  WindowScan::Walls walls;
  walls.weekTopModel.wall = CutoffObservation{1e-7, kMin};
  walls.weekTopModel.latestResetInstant = instants.back();
  s.cachedWalls = walls;
  return s;
}

// A large state of random values, as a day of heavy use leaves.
PersistedState randomState() {
  std::mt19937_64 rng(11);
  auto someDouble = [&] {
    for (;;) {
      const uint64_t bits = rng();
      double d;
      std::memcpy(&d, &bits, sizeof d);
      if (std::isfinite(d)) return rng() % 2 ? d : static_cast<double>(rng() % 10'000'000) / 1e6;
    }
  };
  auto someInstant = [&] { return JsonFields::kReferenceEpochMs + static_cast<InstantMs>(rng() % 3'100'000'000'000); };
  auto someId = [&] { return "req_" + std::to_string(rng()); };
  PersistedState s;
  s.root = "/random";
  for (int i = 0; i < 300; ++i) {
    const std::string path = "/p/" + std::to_string(rng()) + ".jsonl";
    s.fileOffsets[path] = static_cast<int64_t>(rng() >> 1);
    FileMediaState m{someId(), int64_t(rng() % 9), int64_t(rng() % 9), int64_t(rng() % 9), someDouble(),
                     int64_t(rng() % 9999), someInstant(), int64_t(rng() % 99), someId(), someDouble(),
                     int64_t(rng() >> 20), int64_t(rng() >> 40), "sonnet", rng() % 2 == 0, rng() % 2 == 0,
                     rng() % 2 == 0, rng() % 2 == 0};
    if (i % 3 == 0) {
      m.runLastImageAt = std::nullopt;
      m.openRequestId = m.openFamily = std::nullopt;
    }
    s.fileMediaState[path] = m;
    if (i % 2 == 0) s.subagentLastModel[path] = "claude-haiku-4";
  }
  for (int i = 0; i < 200; ++i) {
    SessionLiveState st;
    st.project = "p";
    st.lastActivity = someInstant();
    st.considerForSetupTax(someInstant(), someId(), "claude-sonnet-4-5", TurnUsage{1, 2, 3, 4, 5});
    s.sessionState[someId()] = st;
  }
  for (int i = 0; i < 3000; ++i)
    s.recentBurns.push_back({someInstant(), someDouble(), rng() % 2 == 0, int64_t(rng() >> 30)});
  for (int i = 0; i < 3000; ++i) s.seenRequestIds.push_back(someId());
  s.todaySpentUSD = someDouble();
  s.todayBoundary = someInstant();
  return s;
}

struct Case {
  std::string name;
  PersistedState state;
  bool exact;  // written and read back unchanged
};

std::vector<Case> cases() {
  PersistedState notFinite = full();
  notFinite.todaySpentUSD = std::numeric_limits<double>::quiet_NaN();
  notFinite.recentBurns[0].costUSD = -std::numeric_limits<double>::infinity();
  PersistedState farInstant = full();
  farInstant.recentBurns[0].timestamp = JsonFields::kReferenceEpochMs + (int64_t(1) << 53) + 7;
  return {{"empty", PersistedState{}, true},          {"full", full(), true},
          {"sparse", sparse(), true},                 {"numbers", numbers(), true},
          {"random", randomState(), true},            {"awkward strings", awkwardStrings(), false},
          {"not finite", notFinite, false},           {"instant past 2^53 ms", farInstant, false}};
}

// The codec writes what the tree writer wrote, value for value and type for
// type (parsed and dumped again by the library, so that only the spelling
// of numbers may differ), and reads it back as the tree reader does.
TEST(PersistedStateTest, WritesAndReadsWhatTheTreeCodecDid) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    const std::string text = PersistedStateCodec::encode(c.state);
    const std::string old = treeText(c.state);
    EXPECT_EQ(firstDifference(json::parse(text).dump(), json::parse(old).dump()), "");
    const auto decoded = PersistedStateCodec::decode(text, c.state.root);
    EXPECT_TRUE(decoded == treeLoad(old, c.state.root));
    if (c.exact) {
      EXPECT_TRUE(decoded == c.state);
    }
  }
  // Whole doubles keep a fraction, so that any reader takes them as doubles.
  const std::string text = PersistedStateCodec::encode(full());
  EXPECT_NE(text.find(R"("todayBoundary":794793600.0,)"), std::string::npos);
  EXPECT_NE(text.find(R"("costUSD":3.0,)"), std::string::npos);
}

// Every key of every record missing, null, of each other type, or given
// twice; unknown keys; other versions and roots; texts that are not JSON or
// are cut short or garbled: the codec accepts exactly what the tree reader
// accepts, and reads it to the same state.
TEST(PersistedStateTest, AcceptsAndRefusesWhatTheTreeReaderDid) {
  const PersistedState s = full();
  const std::string text = PersistedStateCodec::encode(s);
  const json base = json::parse(text);
  int accepted = 0, refused = 0;
  auto check = [&](const std::string& variant, const std::string& what) {
    const auto mine = PersistedStateCodec::decode(variant, s.root);
    EXPECT_TRUE(mine == treeLoad(variant, s.root)) << what << "\n" << variant.substr(0, 300);
    ++(mine ? accepted : refused);
  };

  const std::vector<json> values = {nullptr, "x", 1.5, 2.0, 7, -1, std::numeric_limits<uint64_t>::max(), true,
                                    json::array(), json::object(), 794793600.0, 1e15, 3};
  for (const char* where : {"", "/fileMediaState/~1p~1a.jsonl", "/sessionState/a", "/sessionState/a/setupTax",
                            "/recentBurns/0", "/cachedWalls", "/cachedWalls/session", "/cachedWalls/session/wall",
                            "/fileOffsets", "/todayTokensByFamily", "/subagentLastModel"}) {
    const json::json_pointer pointer(where);
    std::vector<std::string> keys = {"unknown"};
    for (const auto& [k, v] : base.at(pointer).items()) keys.push_back(k);
    for (const std::string& key : keys) {
      json erased = base;
      erased.at(pointer).erase(key);
      check(erased.dump(), std::string(where) + " without " + key);
      for (const json& value : values) {
        json changed = base;
        changed.at(pointer)[key] = value;
        check(changed.dump(), std::string(where) + "/" + key + " = " + value.dump());
      }
    }
  }
  for (const char* where : {"/recentBurns", "/seenRequestIds"})
    for (const json& value : values) {
      json first = base, appended = base;
      first.at(json::json_pointer(where))[0] = value;
      appended.at(json::json_pointer(where)).push_back(value);
      check(first.dump(), std::string(where) + "[0] = " + value.dump());
      check(appended.dump(), std::string(where) + " + " + value.dump());
    }

  // Keys given twice: the last counts, also when it is null or the first is
  // of the wrong type.
  auto replaced = [&](const std::string& from, const std::string& to) {
    std::string t = text;
    t.replace(t.find(from), from.size(), to);
    return t;
  };
  check(replaced("{", R"({"todayTurns":"x",)"), "todayTurns twice, bad first");
  check(replaced("{", R"({"todayTurns":3,"todayTurns":null,)"), "todayTurns thrice, a number last");
  check(text.substr(0, text.size() - 1) + R"(,"todayTurns":null})", "todayTurns null last");
  check(text.substr(0, text.size() - 1) + R"(,"stateVersion":2})", "stateVersion 2 last");
  check(replaced(R"("fileOffsets":{)", R"("fileOffsets":{"/p/b.jsonl":"x",)"), "offset twice, bad first");
  check(replaced(R"("fileOffsets":{)", R"("fileOffsets":{"/p/z":1,"/p/z":-2,)"), "offset twice, out of order");
  check(replaced(R"("fileOffsets":{)", R"("fileOffsets":{"/p/z":1,"/p/z":true,)"), "offset twice, bad last");
  check(replaced(R"("costUSD":0.5)", R"("costUSD":"x","costUSD":0.5)"), "burn key twice");
  check(replaced(R"("sessionId":"a")", R"("sessionId":"a","sessionId":null)"), "record key twice, null last");
  check(replaced(R"("stateVersion":3)", R"("stateVersion":3.0)"), "version as a double");
  check(replaced(R"("stateVersion":3)", R"("stateVersion":"3")"), "version as a string");
  check(replaced(R"("root":")", R"("root":"x)"), "another root");
  check(replaced("\"/p/a.jsonl\"", R"("\/p\/a\u002ejsonl")"), "escaped key");
  check("\xEF\xBB\xBF" + text, "byte order mark");
  check(" \n\t" + text + "\r\n ", "white space around");
  const std::vector<std::string> others = {"",         "{}",       "[]",        "3",
                                           "null",     "\"s\"",    "{\"stateVersion\":3}", "\xEF\xBB",
                                           text + "x", text + "{}", replaced("req", "r\xff")};
  for (const std::string& other : others) check(other, "other text");

  // Cut at every length, and garbled one byte at a time.
  for (size_t n = 0; n < text.size(); ++n) check(text.substr(0, n), "cut at " + std::to_string(n));
  std::mt19937 rng(5);
  const std::string bytes = "{}[],:\"\\0123456789-+.eE \x01\xff\xc3tfnul";
  for (int n = 0; n < 3000; ++n) {
    std::string g = text;
    const size_t i = rng() % g.size();
    const char b = rng() % 3 == 0 ? static_cast<char>(rng()) : bytes[rng() % bytes.size()];
    switch (rng() % 3) {
      case 0: g[i] = b; break;
      case 1: g.erase(i, 1 + rng() % 3); break;
      default: g.insert(i, 1, b);
    }
    check(g, "garbled at " + std::to_string(i));
  }
  EXPECT_GT(accepted, 500);
  EXPECT_GT(refused, 3000);
}

TEST(PersistedStateTest, SavesAtomicallyAndLoadsOnlyItsOwnFile) {
  TempDir dir;
  const std::string path = (dir.path() / "deep" / "er" / "state.json").string();
  const PersistedState s = full();
  auto saved = PersistedStateIO::save(s, path);
  ASSERT_TRUE(saved.ok()) << saved.error().message;
  EXPECT_EQ(saved.value(), static_cast<int64_t>(std::filesystem::file_size(path)));
  EXPECT_EQ(readFile(path), PersistedStateCodec::encode(s));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() / "deep" / "er"), {}), 1);
  EXPECT_TRUE(PersistedStateIO::load(path, s.root) == s);
  EXPECT_FALSE(PersistedStateIO::load(path, s.root + "/"));
  EXPECT_FALSE(PersistedStateIO::load((dir.path() / "missing.json").string(), s.root));
  EXPECT_FALSE(PersistedStateIO::load(dir.str(), s.root));
  writeFile(path, "");
  EXPECT_FALSE(PersistedStateIO::load(path, s.root));
}

TEST(PersistedStateTest, DefaultPathIsOneFilePerRootString) {
  EXPECT_NE(PersistedStateIO::defaultPath("/Users/me/.claude/projects"),
            PersistedStateIO::defaultPath("/Users/me/.claude/projects/"));
  EXPECT_EQ(PersistedStateIO::defaultPath("abc"),
            "/tmp/ladder-daemon-scratch/state-ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.json");
}

// A day's transcript, written in three stages; the second stage leaves a
// request with only its first line written.
std::vector<std::string> stages() {
  auto turn = [](const char* ts, const char* rid, int64_t out) {
    return turnLine(ts, rid, {.input = 50, .output = out, .cacheRead = 20'000, .cache5m = 1'000}, "claude-sonnet-4-5");
  };
  return {jsonl({turn("2026-03-10T08:00:00Z", "r1", 10), turn("2026-03-10T08:00:01Z", "r1", 400)}),
          jsonl({turn("2026-03-10T09:00:00Z", "r2", 10), turn("2026-03-10T09:00:01Z", "r2", 90)}) +
              turn("2026-03-10T09:00:02Z", "r2", 95).substr(0, 50),
          turn("2026-03-10T09:00:02Z", "r2", 95).substr(50) + "\n" +
              jsonl({turn("2026-03-10T09:00:03Z", "r2", 700), turn("2026-03-10T10:00:00Z", "r3", 5)})};
}

struct Figures {
  double spent;
  int64_t turns;
  std::map<std::string, int64_t> tokens;
  size_t burns;
  bool operator==(const Figures&) const = default;
};

Figures figures(const LiveEngine& e) {
  return {roundUSD(e.todaySpentUSD()), e.todayTurns(), e.todayTokensByFamily(), e.recentBurns().size()};
}

TEST(PersistedStateTest, RestartMidDayEndsWithTheFiguresOfAnEngineThatNeverStopped) {
  TempDir dir;
  const std::string root = (dir.path() / "root").string();
  const auto file = dir.path() / "root" / "p" / "s.jsonl";
  const std::string statePath = (dir.path() / "scratch" / "state.json").string();
  const InstantMs now = at("2026-03-10T12:00:00Z");
  const auto parts = stages();

  LiveEngine steady(PricingTable::defaultTable(), "UTC");
  LiveEngine first(PricingTable::defaultTable(), "UTC");
  for (size_t i = 0; i < 2; ++i) {
    appendFile(file, parts[i]);
    (void)steady.poll(root, now);
    (void)first.poll(root, now);
  }
  // Saved as the daemon saves it, from the engine's own fields.
  ASSERT_TRUE(PersistedStateIO::save(first.persistenceView(root), statePath).ok());
  EXPECT_EQ(PersistedStateCodec::encode(first.persistenceView(root)),
            PersistedStateCodec::encode(first.snapshotForPersistence(root)));
  // The first engine goes on a little before it dies, unsaved.
  appendFile(file, parts[2]);
  (void)first.poll(root, now);
  (void)steady.poll(root, now);
  EXPECT_EQ(figures(first), figures(steady));

  // The restarted engine reads again what lies behind the saved offset; the
  // saved open request and seen ids keep it from counting anything twice.
  auto loaded = PersistedStateIO::load(statePath, root);
  ASSERT_TRUE(loaded);
  LiveEngine second(PricingTable::defaultTable(), "UTC");
  second.restore(*loaded);
  (void)second.poll(root, now);
  EXPECT_EQ(figures(second), figures(steady));
  EXPECT_EQ(steady.todayTurns(), 3);

  // Restored into the engine that had already read on, the saved state is
  // read on from its own offsets all the same.
  first.restore(*loaded);
  (void)first.poll(root, now);
  EXPECT_EQ(figures(first), figures(steady));
  EXPECT_EQ(first.fileOffsets(), second.fileOffsets());

  // A state file of another version, for another root, cut short or gone
  // gives a cold start that reaches the same figures.
  for (const std::string damage : {"version", "root", "cut", "gone"}) {
    PersistedState s = first.snapshotForPersistence(root);
    if (damage == "version") s.stateVersion = 2;
    if (damage == "root") s.root = root + "/";
    ASSERT_TRUE(PersistedStateIO::save(s, statePath).ok());
    if (damage == "cut") writeFile(statePath, readFile(statePath).substr(0, 100));
    if (damage == "gone") std::filesystem::remove(statePath);
    LiveEngine cold(PricingTable::defaultTable(), "UTC");
    auto state = PersistedStateIO::load(statePath, root);
    EXPECT_FALSE(state) << damage;
    if (state) cold.restore(*state);
    (void)cold.poll(root, now);
    EXPECT_EQ(figures(cold), figures(steady)) << damage;
  }
}

}  // namespace
}  // namespace ostler
