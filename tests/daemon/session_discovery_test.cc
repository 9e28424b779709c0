#include "daemon/session_discovery.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;

TEST(SessionDiscoveryTest, ProjectsThenTopLevelFilesThenSubagentsSessionBySession) {
  TempDir dir;
  const auto& root = dir.path();
  // s0's subagent folder names its chat though the top-level transcript is gone.
  for (const char* path : {"b-proj/s2.jsonl", "b-proj/s1.jsonl", "b-proj/notes.txt", "b-proj/s2/subagents/agent-b.jsonl",
                           "b-proj/s2/subagents/deep/agent-a.jsonl", "b-proj/s0/subagents/agent-z.jsonl",
                           "b-proj/s1/other/x.jsonl", "a-proj/s9.jsonl", "stray.jsonl"})
    writeFile(root / path, "");

  auto files = SessionDiscovery::discoverFiles(root.string());
  std::vector<std::string> paths;
  for (const auto& f : files) paths.push_back(f.path.substr(root.string().size() + 1));
  EXPECT_EQ(paths, (std::vector<std::string>{
                       "a-proj/s9.jsonl",
                       "b-proj/s1.jsonl",
                       "b-proj/s2.jsonl",
                       "b-proj/s0/subagents/agent-z.jsonl",
                       "b-proj/s2/subagents/agent-b.jsonl",
                       "b-proj/s2/subagents/deep/agent-a.jsonl",
                   }));
  ASSERT_EQ(files.size(), 6u);
  EXPECT_EQ(files[1], (DaemonFile{(root / "b-proj" / "s1.jsonl").string(), "s1", (root / "b-proj").string(), false}));
  EXPECT_EQ(files[3].sessionId, "s0");
  EXPECT_TRUE(files[3].isSubagent);
  EXPECT_EQ(files[5].sessionId, "s2");

  EXPECT_TRUE(SessionDiscovery::discoverFiles((root / "missing").string()).empty());
}

}  // namespace
}  // namespace ostler
