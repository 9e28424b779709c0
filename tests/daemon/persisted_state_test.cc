#include "daemon/state/persisted_state.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>

#include "daemon/engine/live_engine.h"
#include "daemon/state/persisted_state_codec.h"
#include "line_builder.h"
#include "transcript/text.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;
using PersistedStateCodec::decode;
using PersistedStateCodec::encode;

// Every field set, each to a value no neighbouring field of its type shares;
// the four flags of a file record take the four pairs of values across the
// two records, so that no two can trade places unseen.
PersistedState full() {
  PersistedState s;
  s.root = "/home/me/.claude/projects";
  s.fileOffsets = {{"/p/a.jsonl", 1234}, {"/p/b.jsonl", 0}};
  FileMediaState m{"a", 1500, 2, 3, 0.0045, 4500, at("2026-03-10T10:00:00.250Z"), 1, "req", 0.125, 50'000, 700,
                   "opus", true, false, true, false};
  s.fileMediaState = {{"/p/a.jsonl", m}, {"/p/b.jsonl", FileMediaState{}}};
  s.fileMediaState["/p/b.jsonl"].sessionId = "b";
  s.fileMediaState["/p/b.jsonl"].openTurnCounted = true;
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

// The text of full(), key for key: keys in byte order, instants as seconds
// since 2001, whole doubles with a fraction so that any reader takes them as
// doubles.
const std::string kFullText =
    R"~({"cachedWalls":{"session":{"latestResetInstant":794847600.0,)~"
    R"~("latestResetPhrase":"resets 3:00pm (UTC)","wall":{"tokens":3500,"valueUSD":35.0}},)~"
    R"~("week":{"wall":{"tokens":1,"valueUSD":1e-06}},"weekTopModel":{}},)~"
    R"~("fileMediaState":{"/p/a.jsonl":{"nonImageStreak":1,"openContextTokens":50000,"openCostUSD":0.125,)~"
    R"~("openCountsForToday":true,"openFamily":"opus","openIsDuplicate":false,"openIsStub":false,)~"
    R"~("openOutputTokens":700,"openRequestId":"req","openTurnCounted":true,"pendingImageCount":2,)~"
    R"~("pendingImageTokens":1500,"runImageCount":3,"runLastImageAt":794829600.25,"runTokensSoFar":4500,)~"
    R"~("runUsdSoFar":0.0045,"sessionId":"a"},"/p/b.jsonl":{"nonImageStreak":0,"openContextTokens":0,)~"
    R"~("openCostUSD":0.0,"openCountsForToday":false,"openIsDuplicate":false,"openIsStub":true,)~"
    R"~("openOutputTokens":0,"openTurnCounted":true,"pendingImageCount":0,"pendingImageTokens":0,)~"
    R"~("runImageCount":0,"runTokensSoFar":0,"runUsdSoFar":0.0,"sessionId":"b"}},)~"
    R"~("fileOffsets":{"/p/a.jsonl":1234,"/p/b.jsonl":0},"newLinesSeen":10,"newLinesSkipped":1,)~"
    R"~("quotaLastEventAt":"2026-03-10T08:00:00.000Z","quotaResetsNote":"resets 3pm",)~"
    R"~("recentBurns":[{"costUSD":0.5,"isFableFamily":true,"timestamp":794829600.0,"tokens":42},)~"
    R"~({"costUSD":3.0,"isFableFamily":false,"timestamp":794829601.5,"tokens":0}],)~"
    R"~("root":"/home/me/.claude/projects","seenRequestIds":["req","other"],)~"
    R"~("sessionState":{"a":{"aiTitle":"AI title","contextTurnAt":794829540.0,"customTitle":"Custom",)~"
    R"~("firstUserMessage":"hello","lastActivity":794829600.0,"lastCacheWriteAt":794829480.0,)~"
    R"~("lastCacheWriteWasEphemeral1h":true,"lastContextTokens":42000,"lastModel":"claude-opus-4",)~"
    R"~("project":"app","projectDirPath":"/p","setupTax":{"cache1h":5,"cache5m":4,"cacheRead":3,"input":1,)~"
    R"~("model":"claude-opus-4","output":2,"requestId":"req0"},"setupTaxAt":794826000.0},)~"
    R"~("b":{"lastCacheWriteWasEphemeral1h":false,"lastContextTokens":0,"lastModel":"","project":"b",)~"
    R"~("projectDirPath":""}},"stateVersion":3,)~"
    R"~("subagentLastModel":{"/p/a/subagents/x.jsonl":"claude-haiku-4"},"todayBoundary":794793600.0,)~"
    R"~("todaySpentUSD":0.30000000000000004,"todayTokensByFamily":{"opus":99,"sonnet":7},"todayTurns":3})~";

// Integers at their limits, doubles that are hard to write in few digits,
// and instants on both sides of 2001 and to the millisecond.
PersistedState numbers() {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max(), kMin = std::numeric_limits<int64_t>::min();
  constexpr InstantMs kEpoch = ReferenceSeconds::kEpochMs;
  PersistedState s;
  s.newLinesSeen = kMax;
  s.newLinesSkipped = kMin;
  s.fileOffsets = {{"max", kMax}, {"min", kMin}, {"2^53+1", (int64_t(1) << 53) + 1}};
  s.todayBoundary = kEpoch - 1;
  const std::vector<double> doubles = {-0.0,  0.1,  1e-7,    12345.678901234, 0.1 + 0.2, -2.5,     1e15,
                                       1e16,  1e21, 1e22,    1.5e300,         5e-324,    DBL_MAX,  -DBL_MIN,
                                       2.2250738585072009e-308, 9007199254740993.0, 1.0 / 3};
  const std::vector<InstantMs> instants = {kEpoch,         kEpoch + 1,      kEpoch - 1,
                                           kEpoch + 10,    kEpoch - 999,    kEpoch + 100'000,
                                           kEpoch - 1'500, at("2099-12-31T23:59:59.999Z"),
                                           kEpoch + 99'999'999'999'999, kEpoch - 5'000'000'000'123};
  for (size_t i = 0; i < doubles.size(); ++i) {
    s.recentBurns.push_back({instants[i % instants.size()], doubles[i], i % 2 == 0, kMax - int64_t(i)});
    s.fileMediaState[std::to_string(i)].runUsdSoFar = doubles[i];
  }
  // Random bit patterns: whatever double the engine holds is written exactly.
  std::mt19937_64 rng(11);
  while (s.recentBurns.size() < 2000) {
    const uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    if (std::isfinite(d)) s.recentBurns.push_back({kEpoch + InstantMs(rng() % 3'100'000'000'000), d, false, 1});
  }
  WindowScan::Walls walls;
  walls.weekTopModel.wall = CutoffObservation{1e-7, kMin};
  walls.weekTopModel.latestResetInstant = instants.back();
  s.cachedWalls = walls;
  return s;
}

TEST(PersistedStateTest, WritesEveryFieldUnderItsOwnKeyAndReadsItBack) {
  EXPECT_EQ(encode(full()), kFullText);
  PersistedState sparse = full();
  sparse.quotaLastEventAt = sparse.quotaResetsNote = std::nullopt;
  sparse.todayBoundary = std::nullopt;
  sparse.cachedWalls = std::nullopt;
  sparse.fileMediaState["/p/a.jsonl"] = FileMediaState{};
  sparse.sessionState["a"] = SessionLiveState{};
  for (const PersistedState& s : {PersistedState{}, full(), sparse, numbers()}) {
    const std::string text = encode(s);
    EXPECT_EQ(text.find("null"), std::string::npos);  // optional keys are left out, not written null
    EXPECT_TRUE(decode(text, s.root) == s);
  }
}

// Strings are escaped, and ill-formed UTF-8 is replaced as text::repairUtf8
// does, in values and in keys alike.
TEST(PersistedStateTest, StringsAreEscapedAndRepaired) {
  std::vector<std::string> strings = {
      "", "quote \" backslash \\ slash /", std::string("nul \0 inside", 12), "\x7f\x01\x1f\b\f\n\r\t",
      "é 日本 🙂", "\xff", "\x80 lone continuation", "\xc3", "cut \xe6\x97", "\xe0\x80\x80 overlong",
      "\xed\xa0\x80 surrogate", "\xf4\x90\x80\x80 past the last code point", "\xf0\x9f\x99 then text",
      "mixed \xe6\x97\xa5\xff\xe6\x97\xa5 \"\n", "1234567\xff", "12345678\xe6\x97\xa5"};
  // Random bytes, weighted to the ones that start, continue or break a
  // sequence or need an escape.
  std::mt19937 rng(7);
  const std::string pool = "a\"\\\n\x01\xc3\xa9\xe6\x97\xa5\xf0\x9f\x99\x82\x80\xbf\xc0\xed\xa0\xf4\x90\xf5\xff";
  for (int n = 0; n < 400; ++n) {
    std::string r(rng() % 20, ' ');
    for (char& c : r) c = rng() % 4 == 0 ? static_cast<char>(rng()) : pool[rng() % pool.size()];
    strings.push_back(r);
  }
  PersistedState s, expected;
  for (size_t i = 0; i < strings.size(); ++i) {
    for (auto [state, str] : {std::pair{&s, strings[i]}, std::pair{&expected, text::repairUtf8(strings[i])}}) {
      state->seenRequestIds.push_back(str);
      state->fileOffsets[std::to_string(i) + "|" + str] = 1;  // the index keeps repaired keys apart
      state->sessionState[std::to_string(i)].customTitle = str;
    }
  }
  EXPECT_TRUE(decode(encode(s), "") == expected);
}

TEST(PersistedStateTest, ReadsWhatAnyWriterOfThisLayoutMightWrite) {
  const PersistedState s = full();
  const std::string text = encode(s);
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string t = text;
    const size_t at = t.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? t : t.replace(at, from.size(), to);
  };
  auto load = [&](const std::string& t) { return decode(t, s.root); };

  // A byte order mark, white space, unknown keys, escapes in keys, keys in
  // any order; of a key given twice the last counts, also in a map.
  for (const std::string& same : std::vector<std::string>{
           "\xEF\xBB\xBF" + text, " \n\t" + text + "\r\n ",
           edited("{", R"({"unknown":[1,{}],"todayTurns":"x",)"),
           edited("\"/p/a.jsonl\"", R"("\/p\/a\u002ejsonl")"),
           edited(R"("fileOffsets":{)", R"("fileOffsets":{"/p/b.jsonl":"x",)"),
           edited(R"({"costUSD":0.5,"isFableFamily":true,"timestamp":794829600.0,"tokens":42})",
                  R"({"tokens":42,"timestamp":794829600.0,"isFableFamily":true,"costUSD":0.5})")})
    EXPECT_TRUE(load(same) == s) << same.substr(0, 200);

  // A file record written before the open request was kept reads with the
  // defaults; a null reads as missing; a whole number as a double.
  PersistedState expected = s;
  expected.fileMediaState["/p/b.jsonl"].openTurnCounted = false;
  EXPECT_TRUE(load(edited(R"("nonImageStreak":0,"openContextTokens":0,"openCostUSD":0.0,"openCountsForToday":false,)"
                          R"("openIsDuplicate":false,"openIsStub":true,"openOutputTokens":0,"openTurnCounted":true,)",
                          R"("nonImageStreak":0,)")) == expected);
  expected = s;
  expected.sessionState["a"].customTitle = std::nullopt;
  EXPECT_TRUE(load(edited(R"("customTitle":"Custom")", R"("customTitle":null)")) == expected);
  expected = s;
  expected.recentBurns[0].costUSD = 2.0;
  EXPECT_TRUE(load(edited(R"("costUSD":0.5)", R"("costUSD":2)")) == expected);
  expected = s;
  expected.fileOffsets["/p/z"] = -2;
  EXPECT_TRUE(load(edited(R"("fileOffsets":{)", R"("fileOffsets":{"/p/z":1,"/p/z":-2,)")) == expected);

  // Another version or root, a required key missing, null or mistyped, an
  // instant out of range, or a text that is not one JSON object: a cold start.
  for (const std::string& refused : std::vector<std::string>{
           edited(R"("stateVersion":3)", R"("stateVersion":2)"), edited(R"("stateVersion":3)", R"("stateVersion":3.0)"),
           edited(R"("stateVersion":3,)", ""), edited(R"("root":")", R"("root":"x)"), edited(R"("root":")", R"("r":")"),
           edited(R"("todayTurns":3)", R"("todayTurns":null)"), edited(R"("todayTurns":3)", R"("todayTurns":3.5)"),
           edited(R"("todayTurns":3)", R"("todayTurns":9223372036854775808)"),
           edited(R"("sessionId":"a")", R"("sessionId":"a","sessionId":null)"),
           edited(R"("lastModel":"claude-opus-4",)", ""), edited(R"("model":"claude-opus-4")", R"("model":5)"),
           edited(R"("isFableFamily":true)", R"("isFableFamily":1)"),
           edited(R"("valueUSD":35.0)", R"("valueUSD":"35")"),
           edited(R"("timestamp":)", R"("timestamp":1e15,"x":)"), edited(R"("recentBurns":[)", R"("recentBurns":[5,)"),
           edited(R"("seenRequestIds":[)", R"("seenRequestIds":[5,)"),
           edited(R"("fileOffsets":{)", R"("fileOffsets":{"/p/z":1,"/p/z":true,)"),
           edited(R"("req")", "\"r\xff\""), text + "x", text + "{}", "\xEF\xBB", "", "[]", "null"})
    EXPECT_FALSE(load(refused)) << refused.substr(0, 200);
  for (size_t n = 0; n < text.size(); ++n) EXPECT_FALSE(load(text.substr(0, n))) << "cut at " << n;

  // NaN and infinities, which JSON cannot hold, are written as null.
  PersistedState notFinite = s;
  notFinite.recentBurns[1].costUSD = -std::numeric_limits<double>::infinity();
  EXPECT_NE(encode(notFinite).find(R"("costUSD":null)"), std::string::npos);
  EXPECT_FALSE(load(encode(notFinite)));
}

TEST(PersistedStateTest, SavesAtomicallyAndLoadsOnlyItsOwnFile) {
  TempDir dir;
  const std::string path = (dir.path() / "deep" / "er" / "state.json").string();
  const PersistedState s = full();
  auto saved = PersistedStateIO::save(systemFileSystem(), s, path);
  ASSERT_TRUE(saved.ok()) << saved.error().message;
  EXPECT_EQ(saved.value(), static_cast<int64_t>(std::filesystem::file_size(path)));
  EXPECT_EQ(readFile(path), PersistedStateCodec::encode(s));
  EXPECT_TRUE(PersistedStateIO::load(systemFileSystem(), path, s.root) == s);
  EXPECT_FALSE(PersistedStateIO::load(systemFileSystem(), (dir.path() / "missing.json").string(), s.root));
  EXPECT_FALSE(PersistedStateIO::load(systemFileSystem(), dir.str(), s.root));
  writeFile(path, "");
  EXPECT_FALSE(PersistedStateIO::load(systemFileSystem(), path, s.root));

  // A state of several pieces is written as it is encoded, to the same text;
  // a sink that refuses a piece is handed no more.
  PersistedState big = numbers();
  while (big.recentBurns.size() < 8000) big.recentBurns.push_back(big.recentBurns[big.recentBurns.size() % 2000]);
  ASSERT_TRUE(PersistedStateIO::save(systemFileSystem(), big, path).ok());
  const std::string whole = PersistedStateCodec::encode(big);
  EXPECT_EQ(readFile(path), whole);
  std::vector<size_t> pieces;
  EXPECT_TRUE(PersistedStateCodec::encode(big, [&](std::string_view piece) {
    pieces.push_back(piece.size());
    return true;
  }));
  EXPECT_GE(pieces.size(), 3u);
  pieces.clear();
  EXPECT_FALSE(PersistedStateCodec::encode(big, [&](std::string_view piece) {
    pieces.push_back(piece.size());
    return pieces.size() < 2;
  }));
  EXPECT_EQ(pieces.size(), 2u);
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

  LiveEngine steady(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  LiveEngine first(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  for (size_t i = 0; i < 2; ++i) {
    appendFile(file, parts[i]);
    (void)steady.poll(root, now);
    (void)first.poll(root, now);
  }
  // Saved as the daemon saves it, from the engine's own fields.
  ASSERT_TRUE(PersistedStateIO::save(systemFileSystem(), first.persistenceView(root), statePath).ok());
  // The first engine goes on a little before it dies, unsaved.
  appendFile(file, parts[2]);
  (void)first.poll(root, now);
  (void)steady.poll(root, now);
  EXPECT_EQ(figures(first), figures(steady));

  // The restarted engine reads again what lies behind the saved offset; the
  // saved open request and seen ids keep it from counting anything twice.
  auto loaded = PersistedStateIO::load(systemFileSystem(), statePath, root);
  ASSERT_TRUE(loaded);
  LiveEngine second(systemFileSystem(), PricingTable::defaultTable(), "UTC");
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
}

}  // namespace
}  // namespace ostler
