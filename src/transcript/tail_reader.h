// Reads the whole lines appended to a file since a byte offset. `offset`
// only ever moves over whole lines (the line's bytes plus its line feed), so
// a line still being written stays in the file and is read again, complete,
// by the next reader started at `offset`. Lines are split on byte 10 alone; a
// carriage return stays in the line.
//
// The buffer is bounded: once it holds more than `maxBufferBytes` (64 MiB)
// without a line feed, reading stops and `offset` stays at the start of that
// line, so the line and everything behind it wait for a later read.
//
// The file is opened by `open` and closed by `close` or the destructor. A
// file that cannot be opened gives nothing and is tried again at the next
// poll. Not thread-safe; one reader per file and poll.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "transcript/line_reader.h"

namespace ostler {

class TailReader {
 public:
  static constexpr size_t kDefaultChunkSize = LineReader::kDefaultChunkSize;
  static constexpr size_t kMaxBufferBytes = 0x4000000;  // 64 MiB
  // Readable bytes guaranteed behind every line handed out, so that the JSON
  // parser can read it in place.
  static constexpr size_t kPadding = LineReader::kPadding;

  [[nodiscard]] static Result<TailReader> open(FileSystem& fs, const std::string& path, int64_t startOffset,
                                               size_t chunkSize = kDefaultChunkSize,
                                               size_t maxBufferBytes = kMaxBufferBytes);

  // The next whole line, without its line feed, as raw bytes; nothing once
  // the file holds no further whole line (or the buffer limit was reached).
  // The view stays valid until the next call; kPadding readable bytes follow
  // it. Advances `offset` past the line and its line feed.
  [[nodiscard]] std::optional<std::string_view> nextLine() { return reader_.nextLine(); }

  // Every whole line still available, as text: invalid UTF-8 is repaired to
  // U+FFFD. Advances `offset` like repeated nextLine calls.
  [[nodiscard]] std::vector<std::string> readAvailableLines();

  // Ends the reading once `stop` is requested, leaving the rest for later.
  void stopWhen(std::stop_token stop) { reader_.stopWhen(std::move(stop)); }

  // The read error that ended the reading, if one did.
  [[nodiscard]] const std::optional<Error>& failure() const { return reader_.failure(); }
  // The file offset just behind the last whole line handed out.
  [[nodiscard]] int64_t offset() const { return static_cast<int64_t>(reader_.nextLineOffset()); }

  void close() { reader_.close(); }

 private:
  explicit TailReader(LineReader reader) : reader_(std::move(reader)) {}

  LineReader reader_;
};

}  // namespace ostler
