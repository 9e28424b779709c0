#include "closeout/closeout_tail_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_file_system.h"

namespace ostler {
namespace {

using Line = CloseoutTailReader::Line;

std::vector<Line> readFrom(FileSystem& fs, int64_t offset, size_t chunkSize = CloseoutTailReader::kDefaultChunkSize) {
  auto reader = CloseoutTailReader::open(fs, "/t.jsonl", offset, chunkSize);
  EXPECT_TRUE(reader.has_value());
  if (!reader) return {};
  auto lines = reader->readAvailableLines();
  reader->close();
  return lines;
}

// Ranges exclude the line feed, and a reading resumed at byteEnd + 1 of the
// last line consumed picks up exactly the next line, once it is whole.
TEST(CloseoutTailReaderTest, ReturnsWholeLinesWithTheirRangesAndResumesAfterThem) {
  testing::FakeFileSystem fs;
  fs.put("/t.jsonl", "ab\n\ncd\r\nef");
  for (size_t chunk : {size_t{1}, size_t{2}, size_t{3}, CloseoutTailReader::kDefaultChunkSize}) {
    EXPECT_EQ(readFrom(fs, 0, chunk), (std::vector<Line>{{"ab", 0, 2}, {"", 3, 3}, {"cd\r", 4, 7}})) << chunk;
    EXPECT_EQ(readFrom(fs, 3, chunk), (std::vector<Line>{{"", 3, 3}, {"cd\r", 4, 7}})) << chunk;
  }
  EXPECT_TRUE(readFrom(fs, 8).empty());  // "ef" is still being written
  fs.append("/t.jsonl", "\n");
  EXPECT_EQ(readFrom(fs, 8), (std::vector<Line>{{"ef", 8, 10}}));
  EXPECT_TRUE(readFrom(fs, 11).empty());
  EXPECT_TRUE(readFrom(fs, 500).empty());

  fs.put("/t.jsonl", "a\xFF\xC3z\n");
  EXPECT_EQ(readFrom(fs, 0), (std::vector<Line>{{"a\xEF\xBF\xBD\xEF\xBF\xBDz", 0, 4}}));
  EXPECT_FALSE(CloseoutTailReader::open(fs, "/missing.jsonl", 0).has_value());
}

// A line may take 64 MiB; once more than that is buffered without a line
// feed (reading 1 MiB at a time) the reading stops and consumes nothing.
TEST(CloseoutTailReaderTest, StopsAtALineLongerThanItsCap) {
  testing::FakeFileSystem fs;
  const size_t mib = size_t{1} << 20;
  {
    std::string bytes(64 * mib, 'x');
    bytes += "\nb\n";
    fs.put("/t.jsonl", std::move(bytes));
    const auto lines = readFrom(fs, 0);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].byteEnd, static_cast<int64_t>(64 * mib));
    EXPECT_EQ(lines[1], (Line{"b", static_cast<int64_t>(64 * mib) + 1, static_cast<int64_t>(64 * mib) + 2}));
  }
  {
    std::string bytes = "a\n" + std::string(65 * mib, 'x');
    bytes += "\nb\n";
    fs.put("/t.jsonl", std::move(bytes));
    EXPECT_EQ(readFrom(fs, 0), (std::vector<Line>{{"a", 0, 1}}));
    EXPECT_TRUE(readFrom(fs, 2).empty());
  }
}

}  // namespace
}  // namespace ostler
