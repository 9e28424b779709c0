#include "daemon/tail_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace ostler {
namespace {

using testing::appendFile;
using testing::TempDir;
using testing::writeFile;

std::vector<std::string> readFrom(const std::string& path, int64_t offset, int64_t* endOffset,
                                  size_t chunk = TailReader::kDefaultChunkSize,
                                  size_t limit = TailReader::kMaxBufferBytes) {
  auto reader = TailReader::open(path, offset, chunk, limit);
  EXPECT_TRUE(reader.has_value());
  if (!reader) return {};
  auto lines = reader->readAvailableLines();
  *endOffset = reader->offset();
  return lines;
}

TEST(TailReaderTest, OffsetStopsAtTornLastLineUntilItIsWhole) {
  TempDir dir;
  auto path = (dir.path() / "a.jsonl").string();
  writeFile(path, "one\r\ntwo\nthr");
  int64_t offset = 0;
  // A small chunk makes the reads cut lines at every place.
  EXPECT_EQ(readFrom(path, 0, &offset, 2), (std::vector<std::string>{"one\r", "two"}));
  EXPECT_EQ(offset, 9);

  // Nothing new: the torn line is not handed out and the offset stays.
  int64_t again = 0;
  EXPECT_TRUE(readFrom(path, offset, &again, 3).empty());
  EXPECT_EQ(again, 9);

  appendFile(path, "ee\n\nfour\n");
  EXPECT_EQ(readFrom(path, offset, &again, 3), (std::vector<std::string>{"three", "", "four"}));
  EXPECT_EQ(again, 9 + 12);
}

TEST(TailReaderTest, MultiByteCharacterCutByTheWriterIsWholeWhenItsLineIs) {
  TempDir dir;
  auto path = (dir.path() / "a.jsonl").string();
  // The euro sign, E2 82 AC, written in two pieces.
  writeFile(path, "x\xE2\x82");
  int64_t offset = 0;
  EXPECT_TRUE(readFrom(path, 0, &offset, 1).empty());
  EXPECT_EQ(offset, 0);
  appendFile(path, "\xAC\nbad\xFF\n");
  EXPECT_EQ(readFrom(path, offset, &offset, 1), (std::vector<std::string>{"x\xE2\x82\xAC", "bad\xEF\xBF\xBD"}));
  EXPECT_EQ(offset, 10);
}

TEST(TailReaderTest, LineOverTheBufferLimitHoldsTheOffsetAndEverythingBehindIt) {
  TempDir dir;
  auto path = (dir.path() / "a.jsonl").string();
  const size_t limit = 64;
  // A line that fits once read; then one longer than the limit, then a
  // short one that is never reached.
  writeFile(path, "ok\n" + std::string(200, 'x') + "\nlater\n");
  int64_t offset = 0;
  EXPECT_EQ(readFrom(path, 0, &offset, 16, limit), (std::vector<std::string>{"ok"}));
  EXPECT_EQ(offset, 3);
  // Tried again from the same place, with the same outcome.
  EXPECT_TRUE(readFrom(path, offset, &offset, 16, limit).empty());
  EXPECT_EQ(offset, 3);
  // The limit is checked only when no line feed is buffered: a line that
  // ends within the read that crossed the limit is still taken.
  EXPECT_EQ(readFrom(path, offset, &offset, 256, limit).size(), 2u);
}

TEST(TailReaderTest, MissingFileCannotBeOpened) {
  TempDir dir;
  EXPECT_FALSE(TailReader::open((dir.path() / "none.jsonl").string(), 0).has_value());
}

}  // namespace
}  // namespace ostler
