// The heavy pass folds the lines the meter gathered instead of reading the
// tree again; what comes out must be exactly what reading it again gives.
#include "daemon/pre_read_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "daemon/line_builder.h"
#include "daemon/live_engine.h"
#include "daemon/odometer.h"
#include "daemon/persisted_state_codec.h"
#include "daemon/window_scan.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::appendFile;
using testing::jsonl;
using testing::TempDir;

struct Reading {
  PersistedState state;
  std::optional<FeedDiagnosticsExclusions> exclusions;
  WindowScan::Result scan;
  std::map<std::string, int64_t> freshTokens;
};

Reading readTree(const std::string& root, InstantMs now, const PreReadTree* preRead) {
  const PricingTable& pricing = PricingTable::defaultTable();
  LiveEngine engine(pricing, "Europe/Berlin");
  (void)engine.poll(root, now, nullptr, preRead);
  PersistedState state = engine.snapshotForPersistence(root);
  // The daemon saves from the engine's own fields: the same text as a copy.
  EXPECT_EQ(PersistedStateCodec::encode(engine.persistenceView(root)), PersistedStateCodec::encode(state));
  // A set, listed in the order of its table.
  std::sort(state.seenRequestIds.begin(), state.seenRequestIds.end());
  return {std::move(state), engine.exclusionsSnapshot(), WindowScan::scan(root, pricing, preRead),
          LiveEngine::freshWindowedTokensByFamily(root, pricing, now, "Europe/Berlin", preRead)};
}

void expectSameReading(const Reading& gathered, const Reading& read) {
  EXPECT_EQ(gathered.state, read.state);
  EXPECT_EQ(gathered.exclusions, read.exclusions);
  EXPECT_EQ(gathered.scan.events, read.scan.events);
  EXPECT_EQ(gathered.scan.limitEvents, read.scan.limitEvents);
  EXPECT_EQ(gathered.freshTokens, read.freshTokens);
}

std::string firstFile(const std::string& root) {
  for (const auto& e : std::filesystem::recursive_directory_iterator(root))
    if (e.path().extension() == ".jsonl" && e.path().string().find("subagents") == std::string::npos)
      return e.path().string();
  return {};
}

TEST(PreReadTreeTest, FoldingGatheredLinesEqualsReadingTheTree) {
  TempDir dir;
  const std::string root = (dir.path() / "projects").string();
  if (!testing::generateTree(root, {"--today", "--seed", "23", "--sessions", "24", "--resume-rate", "0.3",
                                    "--subagent-rate", "0.4", "--bad-rate", "0.03", "--image-rate", "0.2"}))
    GTEST_SKIP() << "transcript generator not available";
  // What the generator does not write: limit messages, typed names behind
  // blank lines and a torn last line, which must stay unread.
  const std::string file = firstFile(root);
  ASSERT_FALSE(file.empty());
  appendFile(file, jsonl({testing::limitLine("2026-03-10T10:00:00.000Z",
                                             "Claude AI usage limit reached: session limit. resets 3pm (UTC)"),
                          "   ", testing::userTextLine("  name\tthis   chat  "),
                          testing::limitLine("2026-03-10T11:00:00.000Z", "weekly limit reached")}) +
                        R"({"type":"assistant","requestId":"torn")");
  // Chats named late, or at once and then typed on: the later typed texts
  // matter only in the first.
  testing::writeFile(std::filesystem::path(root) / "-typed" / "late.jsonl",
            jsonl({testing::userTextLine(" "), testing::userTextLine("\n\t"), testing::userTextLine("  spaced name"),
                   testing::userTextLine("later prompt")}));
  testing::writeFile(std::filesystem::path(root) / "-typed" / "early.jsonl",
            jsonl({testing::userTextLine("first prompt"), testing::userTextLine(" "), testing::userTextLine("second")}));
  // Lines the meter's decoding and the engine's own part on: keys only one
  // of them reads, of the wrong type, and a block list only the meter's
  // stricter blocks fail.
  testing::writeFile(std::filesystem::path(root) / "-keys" / "keys.jsonl",
                     jsonl({R"({"type":"ai-title","aiTitle":"kept","aiTitle":7})",
                            R"({"type":"custom-title","customTitle":7})",
                            R"({"type":"user","uuid":7,"message":{"content":"typed where the meter fails"}})",
                            R"({"type":"user","timestamp":"2026-03-10T09:00:00.000Z","message":{"content":[)"
                            R"({"type":"image","source":{"data":"QUJDREVGR0g="}},{"type":"tool_result","id":7}]}})",
                            R"({"type":"user","timestamp":"2026-03-10T09:00:01.000Z","message":{"content":[)"
                            R"({"type":"image","source":{"data":"QUJDRA=="}}]}})",
                            R"({"type":"assistant","isApiErrorMessage":"yes","requestId":"r-odd"})",
                            R"({"type":"assistant","error":"rate_limit","lastPrompt":"go","requestId":"r-err",)"
                            R"("timestamp":"2026-03-10T09:00:02.000Z","message":{"model":"claude-sonnet-4-5",)"
                            R"("usage":{"input_tokens":3,"output_tokens":4}}})"}));
  const InstantMs now = systemClock().nowMs();

  PreReadTree preRead(Odometer::kPreReadBytes);
  (void)Odometer::lifetimeAndToday(root, PricingTable::defaultTable(), now - 86'400'000, now, nullptr,
                                   Odometer::readOnce(preRead));
  ASSERT_TRUE(preRead.serve(file, static_cast<int64_t>(std::filesystem::file_size(file))));
  const Reading read = readTree(root, now, nullptr);
  EXPECT_FALSE(read.scan.limitEvents.empty());
  expectSameReading(readTree(root, now, &preRead), read);

  // A file that grew since it was gathered is read from disk, whole.
  appendFile(file, jsonl({"", testing::turnLine("2026-03-10T12:00:00.000Z", "req-late", {.input = 5, .output = 9})}));
  EXPECT_FALSE(preRead.serve(file, static_cast<int64_t>(std::filesystem::file_size(file))));
  expectSameReading(readTree(root, now, &preRead), readTree(root, now, nullptr));
}

// A gathered line is built from the meter's decoding of it where the meter
// could read it, and must then be exactly what the engine's own decoding
// gives. The two decoders read overlapping keys with their own rules: lines
// made of every key either reads, of right and wrong types, doubled and
// nulled, keep them in step as either changes.
TEST(PreReadTreeTest, LinesTakenFromTheMetersDecodingEqualTheEnginesOwn) {
  std::mt19937 rng(7);
  auto chance = [&rng](int percent) { return std::uniform_int_distribution<int>(0, 99)(rng) < percent; };
  auto pick = [&rng](std::initializer_list<std::string> from) {
    return *(from.begin() + std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng));
  };
  // Mostly a value of the key's type, now and then anything at all.
  auto valueOr = [&](std::initializer_list<std::string> good) {
    if (!chance(5)) return pick(good);
    return pick({R"("x y")", "7", "1.5", "true", "null", "[]", "{}"});
  };
  auto text = [&] { return valueOr({R"("assistant")", R"("user")", R"("x y")", R"("session limit")", "null"}); };
  auto object = [&](std::initializer_list<const char*> keys, auto&& valueOf) {
    std::string s = "{";
    for (const char* k : keys) {
      const int copies = chance(45) ? 0 : chance(90) ? 1 : 2;
      for (int c = 0; c < copies; ++c) {
        if (s.size() > 1) s += ',';
        s += '"';
        s += k;
        s += "\":";
        s += valueOf(std::string_view(k));
      }
    }
    s += '}';
    return s;
  };
  auto block = [&] {
    return object({"type", "text", "id", "name", "input", "tool_use_id", "content", "source"}, [&](std::string_view k) {
      if (k == "type") return valueOr({R"("image")", R"("text")", R"("tool_use")"});
      if (k == "source") return valueOr({R"({"data":"QUJDREVGR0g="})", R"({"data":7})"});
      if (k == "input") return valueOr({R"({"command":"ls"})", R"({"file_path":4})"});
      if (k == "content") return pick({R"("out")", "[]", "5"});
      return text();
    });
  };
  auto message = [&] {
    return object({"model", "usage", "content", "id"}, [&](std::string_view k) {
      if (k == "usage") return valueOr({R"({"input_tokens":3,"output_tokens":4})", R"({"input_tokens":"3"})"});
      if (k == "content") {
        std::string list = "[";
        for (int n = std::uniform_int_distribution<int>(0, 2)(rng); n > 0; --n) {
          if (list.size() > 1) list += ',';
          list += block();
        }
        list += ']';
        return chance(70) ? list : text();
      }
      return text();
    });
  };
  auto describe = [](const PreReadTree::Line& l) {
    const LiveLine& x = l.line;
    char out[512];
    std::snprintf(out, sizeof out, "%d %d %s %lld %s %lld/%lld/%lld %s %d %s %s %lld/%lld %s %s", l.decoded,
                  int(x.type), std::string(x.cwd).c_str(), static_cast<long long>(x.instant.value_or(-1)),
                  std::string(x.model).c_str(), static_cast<long long>(x.usage.input),
                  static_cast<long long>(x.usage.output), static_cast<long long>(x.usage.cacheRead),
                  std::string(x.requestId).c_str(), x.isApiErrorMessage, std::string(x.errorText).c_str(),
                  std::string(x.timestampText.value_or("-")).c_str(), static_cast<long long>(x.imageCount),
                  static_cast<long long>(x.imageTokens), std::string(x.typedText.value_or("-")).c_str(),
                  std::string(x.title).c_str());
    return std::string(out);
  };

  JsonLineParser parser;
  RawTranscriptLine raw;
  int taken = 0;
  for (int i = 0; i < 20'000; ++i) {
    const std::string line = object({"type", "timestamp", "sessionId", "cwd", "requestId", "uuid", "isMeta",
                                     "isSidechain", "subtype", "compactMetadata", "isCompactSummary", "error",
                                     "aiTitle", "customTitle", "lastPrompt", "isApiErrorMessage", "message"},
                                    [&](std::string_view k) {
                                      if (k == "message") return message();
                                      if (k == "type") return valueOr({R"("assistant")", R"("user")", R"("ai-title")"});
                                      if (k == "timestamp") return valueOr({R"("2026-03-10T09:00:01.000Z")"});
                                      if (k.starts_with("is")) return valueOr({"true", "false"});
                                      if (k == "compactMetadata") return valueOr({R"({"preTokens":5})"});
                                      return text();
                                    });
    auto root = parser.parse(line, false);
    ASSERT_TRUE(root) << line;
    std::optional<LineTap::MeterReading> reading;
    if (decodeRawTranscriptLine(*root, &raw)) {
      FileDigest digest;
      appendDigestLine(raw, 1, digest);
      reading.emplace(LineTap::MeterReading{raw, digest.lines.back().imageCount, digest.lines.back().imageTokens});
      ++taken;
    }
    std::vector<std::string> gathered;
    const LineTap::MeterReading* fromMeter = reading ? &*reading : nullptr;
    for (const LineTap::MeterReading* meter : {fromMeter, static_cast<const LineTap::MeterReading*>(nullptr)}) {
      PreReadTree tree(1 << 20);
      auto slice = tree.openSlice();
      slice->line(0, line.size() + 1, true, line, &*root, meter);
      tree.take("/f", line.size() + 1, std::move(slice), true);
      tree.serve("/f", static_cast<int64_t>(line.size() + 1))->forEachLine([&](const PreReadTree::Line& l) {
        gathered.push_back(describe(l));
      });
    }
    ASSERT_EQ(gathered.size(), 2u);
    ASSERT_EQ(gathered[0], gathered[1]) << line;
  }
  EXPECT_GT(taken, 2'000);  // the meter's path is the one under test
}

TEST(PreReadTreeTest, FilesPastTheBudgetAreLeftToDisk) {
  TempDir dir;
  const std::string root = (dir.path() / "projects").string();
  if (!testing::generateTree(root, {"--seed", "4", "--sessions", "12"}))
    GTEST_SKIP() << "transcript generator not available";
  const InstantMs now = systemClock().nowMs();
  PreReadTree preRead(64 * 1024);
  (void)Odometer::lifetimeAndToday(root, PricingTable::defaultTable(), now - 86'400'000, now, nullptr,
                                   Odometer::readOnce(preRead));
  EXPECT_LE(preRead.bytes(), 64u * 1024);
  size_t served = 0, files = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
    if (e.path().extension() != ".jsonl") continue;
    ++files;
    if (preRead.serve(e.path().string(), static_cast<int64_t>(e.file_size()))) ++served;
  }
  EXPECT_LT(served, files);
  expectSameReading(readTree(root, now, &preRead), readTree(root, now, nullptr));
}

// A file is served whole or not at all: a slice the meter could not read
// (it comes without lines) takes the whole file back to disk.
TEST(PreReadTreeTest, AFileWithASliceUnreadIsNotServed) {
  PreReadTree preRead(1 << 20);
  auto first = preRead.openSlice();
  first->line(0, 3, true, "{}", nullptr, nullptr);
  preRead.take("/a.jsonl", 3, std::move(first), true);
  preRead.take("/b.jsonl", 3, preRead.openSlice(), false);
  preRead.take("/b.jsonl", 9, nullptr, true);
  preRead.readingDone();
  preRead.waitUntilRead();
  ASSERT_TRUE(preRead.serve("/a.jsonl", 3));
  EXPECT_EQ(preRead.serve("/a.jsonl", 3)->wholeLinesEnd, 3u);
  EXPECT_FALSE(preRead.serve("/a.jsonl", 4));
  EXPECT_FALSE(preRead.serve("/b.jsonl", 9));
}

}  // namespace
}  // namespace ostler
