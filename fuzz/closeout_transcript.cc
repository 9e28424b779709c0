// A chat as the closeout reads it: its lines, the texts made from them, the
// edits, and its tail read as a following reader reads it.
#include <string>

#include "closeout/closeout_tail_reader.h"
#include "closeout/transcript_reader.h"
#include "fuzz_target.h"
#include "support/fake_file_system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostler;
  const std::string_view text = fuzz::asText(data, size);
  const std::vector<TranscriptLine> lines = TranscriptReader::parseLines(text);
  (void)TranscriptReader::plainText(lines);
  (void)TranscriptReader::chunkableText(lines);
  (void)TranscriptReader::groundingText(lines);
  (void)TranscriptReader::editEvents(lines);
  (void)TranscriptReader::topEditedFilesInFinalThird(lines, 5);
  const int64_t third = TranscriptReader::finalThirdStartIndex(static_cast<int64_t>(lines.size()));
  fuzz::require(third >= 0 && third <= static_cast<int64_t>(lines.size()), "the final third lies within the chat");

  // Read in small chunks, the tail gives every line ended by a line feed,
  // end to end, and stops at the last line feed.
  testing::FakeFileSystem fs;
  fs.put("/t.jsonl", std::string(text));
  auto reader = CloseoutTailReader::open(fs, "/t.jsonl", 0, 7);
  fuzz::require(reader.has_value(), "a file in memory opens");
  int64_t next = 0;
  for (const auto& line : reader->readAvailableLines()) {
    fuzz::require(line.byteStart == next && line.byteEnd >= line.byteStart, "lines follow each other");
    fuzz::require(text[static_cast<size_t>(line.byteEnd)] == '\n', "a line ends at a line feed");
    next = line.byteEnd + 1;
  }
  const size_t lastFeed = text.rfind('\n');
  fuzz::require(next == (lastFeed == std::string_view::npos ? 0 : static_cast<int64_t>(lastFeed) + 1),
                "the reading ends behind the last line feed");
  return 0;
}
