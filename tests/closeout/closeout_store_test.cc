// The closeout store: its JSON form, its file (loaded, thrown away when
// stale or damaged, saved atomically), and the values derived from it.
#include "closeout/closeout_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/fake_file_system.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::FakeFileSystem;

constexpr const char* kBase = "/data/Ostler/closeout";
constexpr const char* kSession = "6f1c2d3e-0000-4000-8000-000000000001";
const std::string kDir = std::string(kBase) + "/" + kSession;
const std::string kFile = kDir + "/store.json";

CloseoutTree::Node node(std::vector<std::string> children, std::string summary, bool degraded = false) {
  return {std::move(children), summary, CloseoutTree::hash(summary), degraded};
}

CostRecord onTier(std::string tier) {
  CostRecord c;
  c.tier = std::move(tier);
  return c;
}

// A store with every field set, every optional present.
CloseoutStoreState fullStore() {
  CloseoutStoreState s = CloseoutStoreState::fresh(kSession);
  s.tailOffset = 40'000;
  s.chunks = {{0, 0, 19'999, 3'100, "first piece", CloseoutChunk::hash("one"), 1, 2},
              {1, 0, 19'999, 2'900, "second piece", CloseoutChunk::hash("one"), 2, 2},
              {2, 20'000, 39'999, 3'000, "third, é and ✓", CloseoutChunk::hash("two"), 1, 1}};
  s.tree.levels = {{{node({s.chunks[0].leafIdentityHash(), s.chunks[1].leafIdentityHash()}, "pair"),
                     node({s.chunks[2].leafIdentityHash()}, "third", true)}},
                   {{node({CloseoutTree::hash("pair"), CloseoutTree::hash("third")}, "root")}}};
  s.failures = {
      {20'000, 39'999, CloseoutChunk::hash("two"), CloseoutFailureKind::kExceededContextWindowSizeAtFloor, 2, 2}};
  s.reduceFailures = {{1, 2, {s.chunks[2].leafIdentityHash()}, CloseoutFailureKind::kOther}};
  CloudDispatchRecord failed;
  failed.sessionId = "cloud-1";
  failed.requestedModel = "claude-sonnet-5";
  failed.timestamp = ReferenceSeconds::kEpochMs + 100'500;  // 100.5 s after the 2001 epoch
  failed.cwd = "/home/me/repo";
  failed.dispatchFailed = true;
  failed.endTime = failed.timestamp + 61'250;
  failed.rawStdout = "{\"is_error\":true}";
  failed.rawStderr = "exit 1\n";
  failed.reconstructed = true;
  failed.counterfactualResumeUsd = 1.234567;
  CloudDispatchRecord bare;
  bare.requestedModel = "claude-haiku-4-5";
  bare.timestamp = ReferenceSeconds::kEpochMs + 815'000'000'123;
  bare.cwd = "/r";
  s.dispatchRecords = {failed, bare};
  CloseoutBakedArtifact baked;
  baked.document.handoff = "## STATE\nworking\n";
  baked.document.doc_updates = {{"README.md", "why", "+ a line"}};
  baked.document.cost = onTier("tier1");
  baked.document.cost->cache_read_tokens = 0;
  baked.document.cost->cache_write_tokens = 0;
  baked.document.cost->tokens_are_proxy = true;
  baked.document.degradation_count = 1;
  baked.document.map_failure_count = 1;
  baked.verdict.c1 = {"C1", true, "all cited paths exist", false};
  baked.verdict.c2 = {"C2", false, "void", true};
  baked.verdict.overallPass = true;
  baked.verdict.grounding =
      Grounding::Result{"GROUNDING", {{"src/a.cc", "/r/src/a.cc", true}}, {"~x"}, true, false, ""};
  baked.sourceTailOffset = 40'000;
  s.bakedArtifact = baked;
  s.generationFailures = {{CloseoutFailureKind::kRefusal, "refusal"}};
  s.lastGenerationAttemptTailOffset = 40'000;
  s.costRecords = std::vector<CostRecord>{
      {"sonnet", 1'200, 800, 50'000, 2'000, 1'500, 500, 42.5, false, 0.731204, "claude-sonnet-5", "cloud-1"}};
  s.pricingFailures = std::vector<CloseoutPricingFailure>{{"cloud-2", "transcript not found"}};
  return s;
}

std::vector<std::string> keysOf(const nlohmann::ordered_json& object) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : object.items()) keys.push_back(key);
  return keys;
}

TEST(CloseoutStoreJsonTest, RoundTripsFullAndBareStores) {
  const CloseoutStoreState full = fullStore();
  auto encoded = full.encodedJSON();
  ASSERT_TRUE(encoded.ok()) << encoded.error().message;
  auto decoded = CloseoutStoreState::decode(encoded.value());
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(decoded.value(), full);

  const CloseoutStoreState bare = CloseoutStoreState::fresh(kSession);
  auto bareBytes = bare.encodedJSON();
  ASSERT_TRUE(bareBytes.ok());
  EXPECT_EQ(bareBytes.value(),
            std::string("{\"schemaVersion\":6,\"sessionId\":\"") + kSession +
                "\",\"tailOffset\":0,\"chunks\":[],\"tree\":{\"levels\":[]},\"failures\":[],\"reduceFailures\":[],"
                "\"dispatchRecords\":[],\"generationFailures\":[]}");
  EXPECT_EQ(CloseoutStoreState::decode(bareBytes.value()).value(), bare);

  // Keys in another order, and keys this version does not know, read the same.
  nlohmann::json sorted = nlohmann::json::parse(encoded.value());
  sorted["someLaterField"] = {1, 2};
  EXPECT_EQ(CloseoutStoreState::decode(sorted.dump()).value(), full);

  // A figure JSON cannot hold fails the encoding instead of writing a store
  // that no load would accept.
  CloseoutStoreState bad = full;
  bad.costRecords->front().usd = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(bad.encodedJSON().ok());
}

TEST(CloseoutStoreJsonTest, WritesFieldNamesInFieldOrderAndInstantsAsSecondsSince2001) {
  const std::string bytes = fullStore().encodedJSON().value();
  EXPECT_EQ(bytes.find('\n'), std::string::npos);
  const auto j = nlohmann::ordered_json::parse(bytes);
  EXPECT_EQ(keysOf(j),
            (std::vector<std::string>{"schemaVersion", "sessionId", "tailOffset", "chunks", "tree", "failures",
                                      "reduceFailures", "dispatchRecords", "bakedArtifact", "generationFailures",
                                      "lastGenerationAttemptTailOffset", "costRecords", "pricingFailures"}));
  EXPECT_EQ(keysOf(j["chunks"][0]), (std::vector<std::string>{"index", "byteStart", "byteEnd", "measuredTokens",
                                                              "summary", "contentHash", "pieceIndex", "pieceCount"}));
  EXPECT_EQ(keysOf(j["tree"]["levels"][0]["nodes"][0]),
            (std::vector<std::string>{"childHashes", "summary", "contentHash", "degraded"}));
  EXPECT_EQ(keysOf(j["failures"][0]),
            (std::vector<std::string>{"byteStart", "byteEnd", "contentHash", "kind", "pieceIndex", "pieceCount"}));
  EXPECT_EQ(j["failures"][0]["kind"], "exceededContextWindowSizeAtFloor");
  EXPECT_EQ(keysOf(j["reduceFailures"][0]), (std::vector<std::string>{"level", "batchIndex", "childHashes", "kind"}));
  EXPECT_EQ(keysOf(j["dispatchRecords"][0]),
            (std::vector<std::string>{"sessionId", "requestedModel", "timestamp", "cwd", "dispatchFailed", "endTime",
                                      "rawStdout", "rawStderr", "reconstructed", "counterfactualResumeUsd"}));
  EXPECT_EQ(keysOf(j["dispatchRecords"][1]),
            (std::vector<std::string>{"requestedModel", "timestamp", "cwd", "dispatchFailed"}));
  EXPECT_EQ(j["dispatchRecords"][0]["timestamp"], 100.5);
  EXPECT_EQ(j["dispatchRecords"][0]["endTime"], 161.75);
  EXPECT_EQ(keysOf(j["bakedArtifact"]), (std::vector<std::string>{"document", "verdict", "sourceTailOffset"}));
  EXPECT_EQ(j["bakedArtifact"]["verdict"]["overall_pass"], true);
  EXPECT_EQ(keysOf(j["generationFailures"][0]), (std::vector<std::string>{"kind", "reason"}));
  EXPECT_EQ(keysOf(j["pricingFailures"][0]), (std::vector<std::string>{"sessionId", "reason"}));
  EXPECT_EQ(j["costRecords"][0]["cache_write_1h_tokens"], 500);

  // An instant written by another writer, with more digits than a
  // millisecond, reads to the nearest one.
  auto loose = nlohmann::json::parse(bytes);
  loose["dispatchRecords"][1]["timestamp"] = 815000000.1234;
  EXPECT_EQ(CloseoutStoreState::decode(loose.dump()).value().dispatchRecords[1].timestamp,
            ReferenceSeconds::kEpochMs + 815'000'000'123);
}

TEST(CloseoutStoreFileTest, LoadThrowsAwayStaleOrDamagedStoresAndLeavesUnreadableOnes) {
  const std::string good = CloseoutStoreState::fresh(kSession).encodedJSON().value();
  auto withField = [&](const char* key, nlohmann::json value) {
    auto j = nlohmann::ordered_json::parse(good);
    if (value.is_null())
      j.erase(key);
    else
      j[key] = value;
    return j.dump();
  };
  const std::vector<std::pair<const char*, std::string>> rejected = {
      {"schema 5", withField("schemaVersion", 5)},
      {"schema 7", withField("schemaVersion", 7)},
      {"no generationFailures", withField("generationFailures", nullptr)},
      {"another session", withField("sessionId", "someone-else")},
      {"unknown failure kind",
       withField("generationFailures", nlohmann::json::array({{{"kind", "timeout"}, {"reason", "x"}}}))},
      {"tail offset as text", withField("tailOffset", "0")},
      {"torn file", good.substr(0, good.size() / 2)},
      {"empty file", ""},
  };
  for (const auto& [what, bytes] : rejected) {
    FakeFileSystem fs;
    fs.put(kFile, bytes);
    fs.put(kDir + "/other-file", "x");
    fs.put(std::string(kBase) + "/another-session/store.json", good);
    EXPECT_FALSE(CloseoutStore::load(kSession, kBase, fs)) << what;
    EXPECT_FALSE(fs.stat(kDir).ok()) << what << ": the whole folder goes";
    EXPECT_TRUE(fs.bytes(std::string(kBase) + "/another-session/store.json")) << what;
  }

  FakeFileSystem fs;
  EXPECT_FALSE(CloseoutStore::load(kSession, kBase, fs));  // no store yet
  fs.refuseOpening(kFile);
  EXPECT_FALSE(CloseoutStore::load(kSession, kBase, fs));
  EXPECT_TRUE(fs.stat(kFile).ok()) << "an unreadable store is not thrown away";

  FakeFileSystem fine;
  fine.put(kFile, good);
  EXPECT_EQ(CloseoutStore::load(kSession, kBase, fine), CloseoutStoreState::fresh(kSession));
}

TEST(CloseoutStoreFileTest, SaveReplacesWholeAndKeepsTheOldFileOnFailure) {
  FakeFileSystem fs;
  CloseoutStoreState state = fullStore();
  state.costRecords.reset();
  state.pricingFailures.reset();
  ASSERT_TRUE(CloseoutStore::save(state, kBase, fs).ok());  // makes the folders
  const std::string first = *fs.bytes(kFile);

  // Loaded and saved unchanged, absent money lists stay absent.
  auto loaded = CloseoutStore::load(kSession, kBase, fs);
  ASSERT_TRUE(loaded);
  EXPECT_FALSE(loaded->costRecords);
  EXPECT_FALSE(loaded->pricingFailures);
  ASSERT_TRUE(CloseoutStore::save(*loaded, kBase, fs).ok());
  EXPECT_EQ(*fs.bytes(kFile), first);

  loaded->tailOffset = 80'000;
  fs.failCommitsTo(kFile);
  Status failed = CloseoutStore::save(*loaded, kBase, fs);
  EXPECT_FALSE(failed.ok());
  EXPECT_NE(failed.error().message.find("no space left"), std::string::npos);
  EXPECT_EQ(*fs.bytes(kFile), first);

  FakeFileSystem blocked;
  blocked.put(kBase, "a file where the base folder should be");
  EXPECT_FALSE(CloseoutStore::save(state, kBase, blocked).ok());
}

TEST(CloseoutStoreFileTest, ForeignFoldersAndStraySessionIdsAreNeverTouched) {
  FakeFileSystem fs;
  fs.put(kFile, "not a store");
  fs.giveToAnotherUser(kDir);
  EXPECT_FALSE(CloseoutStore::load(kSession, kBase, fs));
  CloseoutStore::remove(kSession, kBase, fs);
  EXPECT_EQ(fs.bytes(kFile), "not a store");
  EXPECT_FALSE(CloseoutStore::save(CloseoutStoreState::fresh(kSession), kBase, fs).ok());
  EXPECT_EQ(fs.bytes(kFile), "not a store");

  // A session id that is not one folder name would reach outside the base.
  fs.put(std::string(kBase) + "/store.json", "not a store either");
  for (const char* id : {"", ".", "..", "../closeout", "a/b"}) {
    EXPECT_FALSE(CloseoutStore::load(id, kBase, fs)) << id;
    CloseoutStore::remove(id, kBase, fs);
    EXPECT_FALSE(CloseoutStore::save(CloseoutStoreState::fresh(id), kBase, fs).ok()) << id;
  }
  EXPECT_TRUE(fs.bytes(std::string(kBase) + "/store.json"));

  FakeFileSystem own;
  own.put(kFile, "{}");
  CloseoutStore::remove(kSession, kBase, own);
  EXPECT_FALSE(own.stat(kDir).ok());
}

TEST(CloseoutStoreFileTest, RoundTripsThroughTheMachinesFileSystem) {
  testing::TempDir dir;
  const std::string base = dir.str() + "/Ostler/closeout";
  ASSERT_TRUE(CloseoutStore::save(fullStore(), base, systemFileSystem()).ok());
  EXPECT_EQ(CloseoutStore::load(kSession, base, systemFileSystem()), fullStore());
  struct stat st;
  ASSERT_EQ(::stat((base + "/" + kSession).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  testing::writeFile(base + "/" + kSession + "/store.json", "{\"schemaVersion\":5}");
  EXPECT_FALSE(CloseoutStore::load(kSession, base, systemFileSystem()));
  EXPECT_NE(::stat((base + "/" + kSession).c_str(), &st), 0);
}

TEST(CloseoutStoreTest, DerivedValuesAtTheirBoundaries) {
  CloseoutStoreState s = CloseoutStoreState::fresh(kSession);
  EXPECT_EQ(s.treeCoveredChunkCount(), 0);
  EXPECT_FALSE(s.isDirty());

  s.chunks.push_back({0, 0, 9, 10, "only", "h0", 1, 1});
  EXPECT_EQ(s.treeCoveredChunkCount(), 1);  // one chunk is its own root
  EXPECT_FALSE(s.isDirty());
  EXPECT_EQ(s.tree.rootNode(), nullptr);

  s.chunks.push_back({1, 10, 19, 10, "next", "h1", 1, 1});
  EXPECT_TRUE(s.isDirty());

  s.chunks.push_back({2, 20, 29, 10, "last", "h2", 1, 1});
  s.tree.levels = {{{node({"h0", "h1"}, "pair", true), node({"h2"}, "last")}}, {{node({"a", "b"}, "root", true)}}};
  EXPECT_EQ(s.treeCoveredChunkCount(), 3);
  EXPECT_FALSE(s.isDirty());
  EXPECT_EQ(s.degradedNodeCount(), 2);
  s.chunks.push_back({3, 30, 39, 10, "more", "h3", 1, 1});
  EXPECT_TRUE(s.isDirty());

  s.tree.levels.push_back({});
  EXPECT_EQ(s.tree.rootNode(), nullptr);  // an empty last level has no root

  // Absent money lists become lists on the first append; lists keep order.
  s.appendCostRecords(std::vector<CostRecord>{onTier("tier1")});
  s.appendCostRecords(std::vector<CostRecord>{onTier("opus"), onTier("haiku")});
  ASSERT_TRUE(s.costRecords);
  EXPECT_EQ(s.costRecords->size(), 3u);
  EXPECT_EQ(s.costRecords->back().tier, "haiku");
  s.appendPricingFailures({});
  EXPECT_TRUE(s.pricingFailures && s.pricingFailures->empty());
}

TEST(CloseoutStoreTest, HashesAndLeafIdentities) {
  EXPECT_EQ(CloseoutChunk::hash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(CloseoutTree::hash(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(CloseoutTree::hash("é"), "4a99557e4033c3539de2eb65472017cad5f9557f7a0625a09f1c3f6e2ba69c4c");

  CloseoutChunk chunk{0, 0, 9, 10, "s", "abc123", 2, 3};
  EXPECT_EQ(chunk.leafIdentityHash(), "abc123#2of3");
  chunk.pieceIndex = 1;
  chunk.pieceCount = 1;
  EXPECT_EQ(chunk.leafIdentityHash(), "abc123");
}

TEST(CloseoutStoreTest, FailureKindsAndBaseDirectory) {
  for (CloseoutFailureKind kind : {CloseoutFailureKind::kRefusal,
                                   CloseoutFailureKind::kExceededContextWindowSizeAtFloor, CloseoutFailureKind::kOther})
    EXPECT_EQ(CloseoutFailure::parse(CloseoutFailure::name(kind)), kind);
  EXPECT_FALSE(CloseoutFailure::parse("Refusal"));

  using enum CloseoutFailureKind;
  EXPECT_EQ(CloseoutFailure::classify("refusal"), kRefusal);
  EXPECT_EQ(CloseoutFailure::classify("refusal: guardrail"), kOther);  // exactly, not a prefix
  EXPECT_EQ(CloseoutFailure::classify("exceededContextWindowSize at floor (40 words)"),
            kExceededContextWindowSizeAtFloor);
  EXPECT_EQ(CloseoutFailure::classify("exceededContextWindowSiz"), kOther);
  EXPECT_EQ(CloseoutFailure::classify(""), kOther);

  EXPECT_EQ(CloseoutStore::defaultBaseDirectory("/home/me", std::nullopt), "/home/me/.local/share/Ostler/closeout");
  EXPECT_EQ(CloseoutStore::defaultBaseDirectory("/home/me", "/xdg"), "/xdg/Ostler/closeout");
  EXPECT_EQ(CloseoutStore::defaultBaseDirectory("/home/me", "relative"), "/home/me/.local/share/Ostler/closeout");
  EXPECT_EQ(CloseoutStore::directory(kSession, kBase), kDir);
}

}  // namespace
}  // namespace ostler
