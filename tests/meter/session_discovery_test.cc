#include "meter/session_discovery.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/transcript_tree.h"

namespace ostler {
namespace {

using namespace testing;

TEST(SessionDiscoveryTest, ASessionIsATopLevelFileAndItsSubagents) {
  testing::TempDir dir;
  const auto root = dir.path();
  for (const char* path : {"stray.jsonl", "-p1/x.jsonl", "-p1/x/subagents/a.jsonl", "-p1/x/subagents/deep/er/b.jsonl",
                           "-p1/x/subagents/notes.txt", "-p1/y/subagents/a.jsonl", "-p1/z/other/c.jsonl",
                           "-p1/UPPER.JSONL", "-p1/readme.md", "-p2/x.jsonl", "-p2/w/subagent/a.jsonl"})
    writeFile(root / path, "{}\n");
  std::filesystem::create_directories(root / "-p1" / "empty");
  writeFile(root / "not-a-project.txt", "");

  const std::string r = root.string();
  const std::vector<SessionGroup> expected = {
      {"x", r + "/-p1", r + "/-p1/x.jsonl",
       {r + "/-p1/x/subagents/a.jsonl", r + "/-p1/x/subagents/deep/er/b.jsonl"}},
      {"x", r + "/-p2", r + "/-p2/x.jsonl", {}},  // the same stem elsewhere is another session
      {"y", r + "/-p1", std::nullopt, {r + "/-p1/y/subagents/a.jsonl"}},
  };
  const auto groups = discoverSessionGroups(r);
  EXPECT_EQ(groups, expected);
  EXPECT_EQ(countFiles(groups), 5);

  EXPECT_TRUE(discoverSessionGroups((root / "missing").string()).empty());
  EXPECT_TRUE(findJSONLFilesRecursively((root / "missing").string()).empty());
}

TEST(SessionDiscoveryTest, TheWalkListsLinksButNeverEntersThem) {
  testing::TempDir dir;
  const auto root = dir.path();
  writeFile(root / "b" / "deep.jsonl", "{}\n");
  writeFile(root / "a.jsonl" / "inner.jsonl", "{}\n");  // a folder of that name is walked, not listed
  std::filesystem::create_directory_symlink(root, root / "b" / "loop");
  std::filesystem::create_symlink(root / "b" / "deep.jsonl", root / "c.jsonl");
  const std::string r = root.string();
  EXPECT_EQ(findJSONLFilesRecursively(r),
            (std::vector<std::string>{r + "/a.jsonl/inner.jsonl", r + "/b/deep.jsonl", r + "/c.jsonl"}));
}

TEST(SessionDiscoveryTest, SessionsOfOneIdAreReadInTheOrderOfTheirProjects) {
  Tree tree;
  // The same request in two projects counts once, in the project read first.
  tree.main("-a-first", "x", {assistant("R", "claude-opus-4-5", {.output = 1'000}, at(0))});
  tree.main("-b-second", "x", {assistant("R", "claude-haiku-4-5", {.output = 1'000}, at(0)),
                               assistant("S", "claude-haiku-4-5", {.output = 1'000}, at(1))});
  // A chat whose top-level file is gone still counts when it has turns.
  tree.subagent("-b-second", "y", "agent-1", {assistant("T", "claude-haiku-4-5", {.output = 1'000}, at(2))});
  const Receipt r = tree.run();
  EXPECT_EQ(r.totals.sessions, 3);
  EXPECT_EQ(r.totals.turns, 3);
  ASSERT_EQ(r.by_model.size(), 2u);
  EXPECT_EQ(r.by_model[0].model, "claude-opus-4-5");
  EXPECT_EQ(r.by_model[0].turns, 1);
  EXPECT_EQ(r.by_model[1].turns, 2);
  EXPECT_EQ(r.flags.duplicate_request_id_lines_skipped, 1);
  EXPECT_EQ(r.flags.subagent_turns, 1);
}

}  // namespace
}  // namespace ostler
