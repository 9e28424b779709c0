#include "transcript/session_discovery.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_file_system.h"
#include "support/test_support.h"

namespace ostler {
namespace {

TEST(SessionDiscoveryTest, OneWalkGivesTheFilesInBothOrders) {
  testing::FakeFileSystem fs;
  for (const char* path : {"/r/stray.jsonl", "/r/-p1/x.jsonl", "/r/-p1/x/subagents/a.jsonl",
                           "/r/-p1/x/subagents/deep/er/b.jsonl", "/r/-p1/x/subagents/notes.txt",
                           "/r/-p1/y/subagents/a.jsonl", "/r/-p1/w.jsonl", "/r/-p1/z/other/c.jsonl",
                           "/r/-p1/UPPER.JSONL", "/r/-p1/readme.md", "/r/-p2/x.jsonl", "/r/-p2/w/subagent/a.jsonl"})
    fs.put(path, "{}\n");
  fs.makeFolder("/r/-p1/empty");
  fs.putSpecial("/r/-p1/fifo.jsonl");  // listed by its name: whether it reads is the reader's to find out

  // Following order: project by project, top-level files first.
  const std::vector<TranscriptFile> files = SessionDiscovery::discoverFiles(fs, "/r");
  const std::vector<TranscriptFile> following = {
      {"/r/-p1/fifo.jsonl", "fifo", "/r/-p1", false},
      {"/r/-p1/w.jsonl", "w", "/r/-p1", false},
      {"/r/-p1/x.jsonl", "x", "/r/-p1", false},
      {"/r/-p1/x/subagents/a.jsonl", "x", "/r/-p1", true},
      {"/r/-p1/x/subagents/deep/er/b.jsonl", "x", "/r/-p1", true},
      {"/r/-p1/y/subagents/a.jsonl", "y", "/r/-p1", true},
      {"/r/-p2/x.jsonl", "x", "/r/-p2", false},
  };
  EXPECT_EQ(files, following);

  // Metering order: sessions by id, then by project; a chat whose top-level
  // file is gone is a session of its subagents.
  const std::vector<SessionGroup> groups = {
      {"fifo", "/r/-p1", "/r/-p1/fifo.jsonl", {}},
      {"w", "/r/-p1", "/r/-p1/w.jsonl", {}},
      {"x", "/r/-p1", "/r/-p1/x.jsonl", {"/r/-p1/x/subagents/a.jsonl", "/r/-p1/x/subagents/deep/er/b.jsonl"}},
      {"x", "/r/-p2", "/r/-p2/x.jsonl", {}},  // the same stem elsewhere is another session
      {"y", "/r/-p1", std::nullopt, {"/r/-p1/y/subagents/a.jsonl"}},
  };
  EXPECT_EQ(SessionDiscovery::sessionGroups(files), groups);
  EXPECT_EQ(SessionDiscovery::meteringOrder(groups).size(), files.size());
  EXPECT_EQ(SessionDiscovery::meteringOrder(groups)[3], following[3]);

  EXPECT_TRUE(SessionDiscovery::discoverFiles(fs, "/missing").empty());
  EXPECT_TRUE(SessionDiscovery::findJSONLFilesRecursively(fs, "/missing").empty());
}

TEST(SessionDiscoveryTest, TheWalkListsLinksButNeverEntersThem) {
  testing::TempDir dir;
  const auto root = dir.path();
  testing::writeFile(root / "b" / "deep.jsonl", "{}\n");
  testing::writeFile(root / "a.jsonl" / "inner.jsonl", "{}\n");  // a folder of that name is walked, not listed
  std::filesystem::create_directory_symlink(root, root / "b" / "loop");
  std::filesystem::create_symlink(root / "b" / "deep.jsonl", root / "c.jsonl");
  const std::string r = root.string();
  EXPECT_EQ(SessionDiscovery::findJSONLFilesRecursively(systemFileSystem(), r),
            (std::vector<std::string>{r + "/a.jsonl/inner.jsonl", r + "/b/deep.jsonl", r + "/c.jsonl"}));
}

}  // namespace
}  // namespace ostler
