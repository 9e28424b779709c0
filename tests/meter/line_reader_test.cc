#include "meter/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace ostler {
namespace {

std::vector<std::string> readAll(const std::string& path, size_t chunkSize) {
  auto reader = LineReader::open(path, chunkSize);
  EXPECT_TRUE(reader.has_value());
  std::vector<std::string> out;
  if (!reader) return out;
  while (auto line = reader->nextLine()) out.emplace_back(*line);
  EXPECT_FALSE(reader->nextLine().has_value());  // the end stays the end
  return out;
}

TEST(LineReaderTest, SplitsOnLineFeedOnly) {
  struct Case {
    std::string contents;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"a\nb", {"a", "b"}},  // a last line without a line feed is still a line
      {"a\nb\n", {"a", "b"}},
      {"\n", {""}},
      {"\n\n", {"", ""}},
      {"a\r\nb\r\n", {"a\r", "b\r"}},  // the carriage return stays
      {"a\rb", {"a\rb"}},
      {"x\x0B\x0C\xC2\x85\xE2\x80\xA8y\n", {"x\x0B\x0C\xC2\x85\xE2\x80\xA8y"}},
      {std::string("a\0b\n", 4), {std::string("a\0b", 3)}},
  };
  testing::TempDir dir;
  const auto path = (dir.path() / "t.jsonl").string();
  for (const auto& c : cases) {
    testing::writeFile(path, c.contents);
    for (size_t chunk : {size_t{1}, size_t{2}, size_t{3}, LineReader::kDefaultChunkSize})
      EXPECT_EQ(readAll(path, chunk), c.lines) << ::testing::PrintToString(c.contents) << " chunk " << chunk;
  }
  EXPECT_FALSE(LineReader::open((dir.path() / "missing.jsonl").string()).has_value());
}

TEST(LineReaderTest, ReadBoundariesNeverCutALine) {
  // Multi-byte characters at every offset, and a line far longer than a read.
  std::vector<std::string> lines = {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80" "b\xC3\xA9",
                                    std::string(10'000, 'x') + "\xE2\x82\xAC", "", "\xF0\x9F\x98\x80"};
  std::string contents;
  for (const auto& l : lines) contents += l + "\n";
  contents += "tail \xE2\x82\xAC";  // no final line feed
  lines.push_back("tail \xE2\x82\xAC");

  testing::TempDir dir;
  const auto path = (dir.path() / "t.jsonl").string();
  testing::writeFile(path, contents);
  for (size_t chunk = 1; chunk <= 11; ++chunk) EXPECT_EQ(readAll(path, chunk), lines) << "chunk " << chunk;
  EXPECT_EQ(readAll(path, 4096), lines);

  auto reader = LineReader::open(path, 7);
  while (reader->nextLine()) {
  }
  EXPECT_EQ(reader->nextLineOffset(), contents.size());
}

}  // namespace
}  // namespace ostler
