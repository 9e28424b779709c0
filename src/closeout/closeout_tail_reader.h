// Reads the whole lines appended to a transcript since a byte offset, each
// with the byte range it came from, so that the pipeline can note how far
// it has read and resume there (at `byteEnd + 1` of the last line it
// consumed). Only lines ended by a line feed are returned: a last line
// without one may still be being written, so it stays unread and comes back
// whole on a later reading.
//
// One line may hold at most 64 MiB: once more than that is buffered without
// a line feed, reading stops, leaving that line and all behind it unread.
// Lines are split on byte 10 only; invalid UTF-8 is replaced by U+FFFD.
// A reader lives for one reading and is not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "transcript/tail_reader.h"

namespace ostler {

class CloseoutTailReader {
 public:
  static constexpr size_t kDefaultChunkSize = size_t{1} << 20;   // 1 MiB per read
  static constexpr size_t kMaxBufferedBytes = size_t{64} << 20;  // 67,108,864: the longest line

  struct Line {
    std::string text;       // without its line feed
    int64_t byteStart = 0;  // file offset of the line's first byte
    int64_t byteEnd = 0;    // file offset of its line feed: one past the text

    friend bool operator==(const Line&, const Line&) = default;
  };

  // A reader starting at `startOffset`; nothing when the file cannot be
  // opened for reading, which the pipeline takes for "nothing new". An
  // offset past the end reads nothing.
  [[nodiscard]] static std::optional<CloseoutTailReader> open(FileSystem& fs, const std::string& path,
                                                              int64_t startOffset,
                                                              size_t chunkSize = kDefaultChunkSize);

  // Every whole line available, in order.
  [[nodiscard]] std::vector<Line> readAvailableLines();

  // Closes the file; a failure to close is dropped.
  void close() { reader_.close(); }

 private:
  explicit CloseoutTailReader(TailReader reader) : reader_(std::move(reader)) {}

  TailReader reader_;
};

}  // namespace ostler
