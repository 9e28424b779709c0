#include "daemon/tail_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;

// The lines a reader with a buffer limit of 64 bytes takes from `*offset`
// in reads of `chunk` bytes; `*offset` moves to where it stopped.
std::vector<std::string> readFrom(const std::string& path, int64_t* offset, size_t chunk) {
  auto reader = TailReader::open(path, *offset, chunk, 64);
  EXPECT_TRUE(reader.has_value());
  if (!reader) return {};
  auto lines = reader->readAvailableLines();
  *offset = reader->offset();
  return lines;
}

TEST(TailReaderTest, LineOverTheBufferLimitHoldsTheOffsetAndEverythingBehindIt) {
  TempDir dir;
  auto path = (dir.path() / "a.jsonl").string();
  // A line that fits once read; then one longer than the limit, then a
  // short one that is never reached.
  writeFile(path, "ok\n" + std::string(200, 'x') + "\nlater\n");
  int64_t offset = 0;
  EXPECT_EQ(readFrom(path, &offset, 16), (std::vector<std::string>{"ok"}));
  EXPECT_EQ(offset, 3);
  // Tried again from the same place, with the same outcome.
  EXPECT_TRUE(readFrom(path, &offset, 16).empty());
  EXPECT_EQ(offset, 3);
  // The limit is checked only when no line feed is buffered: a line that
  // ends within the read that crossed the limit is still taken.
  EXPECT_EQ(readFrom(path, &offset, 256).size(), 2u);
}

}  // namespace
}  // namespace ostler
