#include "transcript/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_file_system.h"
#include "transcript/tail_reader.h"

namespace ostler {
namespace {

constexpr const char* kPath = "/t.jsonl";

// Every line of the file, read `chunkSize` bytes at a time; the reading
// ends at the end of the file and stays there.
std::vector<std::string> readAll(testing::FakeFileSystem& fs, size_t chunkSize) {
  auto reader = LineReader::open(fs, kPath, 0, chunkSize);
  EXPECT_TRUE(reader.ok());
  std::vector<std::string> out;
  if (!reader) return out;
  while (auto line = reader.value().nextLine()) out.emplace_back(*line);
  EXPECT_FALSE(reader.value().nextLine().has_value());
  EXPECT_EQ(reader.value().nextLineOffset(), fs.bytes(kPath)->size());
  return out;
}

// Multi-byte characters at every offset, and a line far longer than a read.
TEST(LineReaderTest, SplitsOnLineFeedOnlyWhereverAReadEnds) {
  struct Case {
    std::string contents;
    std::vector<std::string> lines;
  };
  const std::string longLine = std::string(10'000, 'x') + "\xE2\x82\xAC";
  const std::vector<Case> cases = {
      {"", {}},
      {"a\nb", {"a", "b"}},  // a last line without a line feed is still a line
      {"a\nb\n", {"a", "b"}},
      {"\n\n", {"", ""}},
      {"a\r\nb\r\n", {"a\r", "b\r"}},  // the carriage return stays
      {"a\rb", {"a\rb"}},
      {"x\x0B\x0C\xC2\x85\xE2\x80\xA8y\n", {"x\x0B\x0C\xC2\x85\xE2\x80\xA8y"}},
      {std::string("a\0b\n", 4), {std::string("a\0b", 3)}},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\na\xF0\x9F\x98\x80!\n" + longLine + "\n\n\xF0\x9F\x98\x80\ntail \xE2\x82\xAC",
       {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80!", longLine, "", "\xF0\x9F\x98\x80", "tail \xE2\x82\xAC"}},
  };
  testing::FakeFileSystem fs;
  for (const auto& c : cases) {
    fs.put(kPath, c.contents);
    for (size_t chunk : {1, 2, 3, 4, 5, 7, 11, 64, int(LineReader::kDefaultChunkSize)})
      EXPECT_EQ(readAll(fs, chunk), c.lines) << ::testing::PrintToString(c.contents.substr(0, 20)) << " chunk " << chunk;
  }
  EXPECT_FALSE(LineReader::open(fs, "/missing.jsonl").ok());
  fs.putSpecial("/fifo.jsonl");
  EXPECT_FALSE(LineReader::open(fs, "/fifo.jsonl").ok());
}

TEST(LineReaderTest, AReadingEndsWhereTheFileEndedWhenItBegan) {
  testing::FakeFileSystem fs;
  fs.put(kPath, "a\nb\n");
  auto reader = LineReader::open(fs, kPath, 0, 1);
  ASSERT_TRUE(reader.ok());
  EXPECT_EQ(reader.value().nextLine(), "a");
  fs.append(kPath, "c\n");  // written while the reading goes on: for the next reading
  EXPECT_EQ(reader.value().nextLine(), "b");
  EXPECT_FALSE(reader.value().nextLine());
  EXPECT_EQ(readAll(fs, 1), (std::vector<std::string>{"a", "b", "c"}));

  // A read that fails ends the reading and says why; what came before stands.
  fs.failReadsFrom(kPath, 3);
  reader = LineReader::open(fs, kPath, 0, 2);
  EXPECT_EQ(reader.value().nextLine(), "a");
  EXPECT_FALSE(reader.value().nextLine());
  ASSERT_TRUE(reader.value().failure());
  EXPECT_NE(reader.value().failure()->message.find("/t.jsonl"), std::string::npos);

  // So does a stop, however long the line.
  fs.put(kPath, std::string(1 << 20, 'x') + "\n");
  std::stop_source stop;
  reader = LineReader::open(fs, kPath, 0, 1024);
  reader.value().stopWhen(stop.get_token());
  stop.request_stop();
  EXPECT_FALSE(reader.value().nextLine());
}

TEST(TailReaderTest, TakesWholeLinesAndResumesAtTheTornOne) {
  testing::FakeFileSystem fs;
  fs.put(kPath, "{\"a\":1}\n{\"b\":\xFF}\n{\"c\"");
  auto reader = TailReader::open(fs, kPath, 0, 4);
  ASSERT_TRUE(reader.ok());
  EXPECT_EQ(reader.value().readAvailableLines(), (std::vector<std::string>{"{\"a\":1}", "{\"b\":\xEF\xBF\xBD}"}));
  const int64_t offset = reader.value().offset();
  EXPECT_EQ(offset, 16);  // before the torn last line
  fs.append(kPath, ":3}\n");
  reader = TailReader::open(fs, kPath, offset, 4);
  EXPECT_EQ(reader.value().readAvailableLines(), (std::vector<std::string>{"{\"c\":3}"}));

  // A line longer than the buffer's bound waits, with all behind it, read
  // after read. The bound is looked at only when no line feed is held: a
  // line that ends within the read that crossed it is still taken.
  fs.put(kPath, "ok\n" + std::string(100, 'x') + "\nshort\n");
  for (int attempt = 0; attempt < 2; ++attempt) {
    reader = TailReader::open(fs, kPath, 0, 8, 32);
    EXPECT_EQ(reader.value().readAvailableLines(), (std::vector<std::string>{"ok"}));
    EXPECT_EQ(reader.value().offset(), 3);
  }
  reader = TailReader::open(fs, kPath, 3, 256, 32);
  EXPECT_EQ(reader.value().readAvailableLines().size(), 2u);
}

}  // namespace
}  // namespace ostler
