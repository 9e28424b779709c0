#include "platform/file_sizes.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_support.h"

namespace ostler {
namespace {

// Whatever a source remembers, each poll sees the sizes as they are when it
// begins: appends, new files, removals, truncation and replacement.
TEST(FileSizesTest, EveryPollSeesTheCurrentSizes) {
  for (int kind = 0; kind < 3; ++kind) {
    {
      auto source = kind == 0 ? makeStatFileSizes() : makeWatchingFileSizes(kind == 1 ? 1 : 1000);
      testing::TempDir dir;
      const auto a = (dir.path() / "a.jsonl").string(), b = (dir.path() / "b.jsonl").string();
      testing::writeFile(a, "12345");
      auto poll = [&](const std::string& path) {
        source->beginPoll();
        auto size = source->sizeOf(path);
        source->endPoll();
        return size;
      };
      EXPECT_EQ(poll(a), 5);
      EXPECT_EQ(poll(a), 5);
      testing::appendFile(a, "678");
      EXPECT_EQ(poll(a), 8);
      EXPECT_EQ(poll(b), std::nullopt);
      testing::writeFile(b, "x");
      EXPECT_EQ(poll(b), 1);
      std::filesystem::resize_file(a, 2);
      EXPECT_EQ(poll(a), 2);
      std::filesystem::remove(a);
      EXPECT_EQ(poll(a), std::nullopt);
      testing::writeFile(dir.path() / "c.tmp", "abcdef");
      std::filesystem::rename(dir.path() / "c.tmp", a);
      EXPECT_EQ(poll(a), 6);
      EXPECT_EQ(poll(dir.str()), std::nullopt);  // a folder is no file
    }
  }
}

// A folder removed and made again is watched afresh.
TEST(FileSizesTest, AFolderMadeAgainIsFollowed) {
  testing::TempDir dir;
  auto source = makeWatchingFileSizes();
  const auto folder = dir.path() / "p";
  const auto file = (folder / "f.jsonl").string();
  testing::writeFile(file, "abc");
  source->beginPoll();
  EXPECT_EQ(source->sizeOf(file), 3);
  std::filesystem::remove_all(folder);
  testing::writeFile(file, "abcdefg");
  source->beginPoll();
  EXPECT_EQ(source->sizeOf(file), 7);
  testing::appendFile(file, "h");
  source->beginPoll();
  EXPECT_EQ(source->sizeOf(file), 8);
}

}  // namespace
}  // namespace ostler
