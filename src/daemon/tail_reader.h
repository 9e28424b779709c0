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
// The file is opened in the constructor and closed by `close` or the
// destructor. Not thread-safe; one reader per file and poll.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostler {

class TailReader {
 public:
  static constexpr size_t kDefaultChunkSize = 1 << 20;
  static constexpr size_t kMaxBufferBytes = 0x4000000;  // 64 MiB
  // Readable bytes guaranteed behind every line handed out, so that the JSON
  // parser can read it in place.
  static constexpr size_t kPadding = 64;

  // Opens `path` and positions it at `startOffset` (a seek failure is
  // ignored: reading then starts where the system left the file). Nothing
  // when the file cannot be opened for reading.
  [[nodiscard]] static std::optional<TailReader> open(const std::string& path, int64_t startOffset,
                                                      size_t chunkSize = kDefaultChunkSize,
                                                      size_t maxBufferBytes = kMaxBufferBytes);

  TailReader(TailReader&& other) noexcept;
  TailReader& operator=(TailReader&& other) noexcept;
  TailReader(const TailReader&) = delete;
  TailReader& operator=(const TailReader&) = delete;
  ~TailReader();

  // The next whole line, without its line feed, as raw bytes; nothing once
  // the file holds no further whole line (or the buffer limit was reached).
  // The view stays valid until the next call; kPadding readable bytes follow
  // it. Advances `offset` past the line and its line feed.
  [[nodiscard]] std::optional<std::string_view> nextLine();

  // Every whole line still available, as text: invalid UTF-8 is repaired to
  // U+FFFD. Advances `offset` like repeated nextLine calls.
  [[nodiscard]] std::vector<std::string> readAvailableLines();

  // The file offset just behind the last whole line handed out.
  [[nodiscard]] int64_t offset() const { return offset_; }

  void close();

 private:
  TailReader(int fd, int64_t offset, size_t chunkSize, size_t maxBufferBytes);
  // Reads one chunk; false at the end of the file or on an error.
  bool fill();

  int fd_ = -1;
  int64_t offset_ = 0;
  size_t chunkSize_;
  size_t maxBufferBytes_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_ = 0;
  size_t begin_ = 0;    // first byte not yet handed out
  size_t end_ = 0;      // one past the last byte read
  size_t scanned_ = 0;  // bytes from begin_ known to hold no line feed
  bool atEOF_ = false;
};

}  // namespace ostler
