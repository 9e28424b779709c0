// A transcript as the closeout pipeline reads it: its lines, and the plain
// texts made from them. `chunkableText` is what gets summarised,
// `groundingText` what cited paths are looked for in, and the edit events
// are what the coverage check measures. Pure functions; nothing here talks
// to a model.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/transcript_model.h"
#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler::TranscriptReader {

// The decodable lines of JSONL text, in file order. The text is cut at line
// feeds (byte 10 only: a carriage return stays on its line, where JSON takes
// it for white space); each piece is trimmed of spaces and tabs, and blank
// pieces and pieces that do not decode for this reading are skipped without
// a report. Never fails.
[[nodiscard]] std::vector<TranscriptLine> parseLines(std::string_view jsonl);

// The lines of the file at `path`. Fails when the file cannot be read, or
// is not valid UTF-8.
[[nodiscard]] Result<std::vector<TranscriptLine>> parseLines(FileSystem& fs, const std::string& path);

// The text of every line's content, untrimmed; pieces that are blank are
// dropped, the rest joined by a blank line.
[[nodiscard]] std::string plainText(std::span<const TranscriptLine> lines);

// The text that is summarised: each line's content text, trimmed, and a
// "[file touched: PATH]" marker for each of its edits, joined by a blank
// line. Tool inputs, tool results, other tools and images are left out.
// Lines of every type count.
[[nodiscard]] std::string chunkableText(std::span<const TranscriptLine> lines);

// The text that citations are grounded against: each line's content text
// and the text of each of its tool results, trimmed, joined by a blank line.
[[nodiscard]] std::string groundingText(std::span<const TranscriptLine> lines);

// Every edit of every line, in order.
[[nodiscard]] std::vector<EditEvent> editEvents(std::span<const TranscriptLine> lines);

// Where the final third of `lineCount` lines starts: lineCount - lineCount/3
// (7 for 10 lines, 6 for 9, 2 for 2). The final third is the smaller part
// when the count does not divide by 3.
[[nodiscard]] int64_t finalThirdStartIndex(int64_t lineCount);

struct EditedFile {
  std::string path;  // as the transcript has it, not canonicalised
  int64_t count = 0;

  friend bool operator==(const EditedFile&, const EditedFile&) = default;
};

// The files edited most in the final third of `lines`: counted by path as
// written, most edits first, equal counts by path in byte order, at most
// `top` of them.
[[nodiscard]] std::vector<EditedFile> topEditedFilesInFinalThird(std::span<const TranscriptLine> lines, int64_t top);

}  // namespace ostler::TranscriptReader
