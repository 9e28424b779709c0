// Every collected real transcript is polled and scanned without a crash. The
// corpus stays where it is: the test links each file into a tree of its own.
#include <gtest/gtest.h>

#include <filesystem>

#include <fmt/format.h>

#include "daemon/engine/live_engine.h"
#include "daemon/windows/window_scan.h"
#include "line_builder.h"
#include "support/test_support.h"

namespace ostler {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

TEST(CorpusPollTest, EveryRealTranscriptIsPolledAndScanned) {
  const fs::path corpus = testing::sharedDir() / "corpus" / "real-transcripts";
  if (!fs::is_directory(corpus)) GTEST_SKIP() << "corpus not available";
  TempDir dir;
  const fs::path root = dir.path() / "projects";
  int files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(corpus)) {
    if (!entry.is_regular_file() || entry.path().extension() != ".jsonl") continue;
    // One project per source repository, one chat per file.
    std::string repo = entry.path().lexically_relative(corpus).begin()->string();
    fs::path link = root / repo / fmt::format("f{}.jsonl", files++);
    fs::create_directories(link.parent_path());
    fs::create_symlink(entry.path(), link);
  }
  ASSERT_GT(files, 200);

  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  const InstantMs now = testing::at("2026-11-20T12:00:00Z");
  auto touched = engine.poll(root.string(), now);
  EXPECT_GT(touched.size(), 200u);
  EXPECT_GT(engine.newLinesSeen(), 15'000);
  // The corpus holds seven lines that are not JSON objects or have a
  // message that is not an object.
  EXPECT_EQ(engine.newLinesSkipped(), 7);
  EXPECT_FALSE(engine.parserAlarmTripped());
  // Every file that holds a decodable line makes its chat.
  EXPECT_GT(engine.sessionState().size(), 200u);
  EXPECT_GT(engine.seenRequestIds().size(), 1'000u);
  // A second poll finds nothing new.
  EXPECT_TRUE(engine.poll(root.string(), now).empty());

  WindowScan::Result scan = WindowScan::scan(systemFileSystem(), root.string(), PricingTable::defaultTable());
  EXPECT_GT(scan.events.size(), 1'000u);
  (void)WindowScan::walls(scan);
}

}  // namespace
}  // namespace ostler
