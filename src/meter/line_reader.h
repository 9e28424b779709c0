// Reads a file line by line in fixed-size chunks, splitting on byte 10 only.
// A carriage return before the line feed stays in the line; a last line with
// no line feed is still a line; lines have no length limit (the buffer grows
// to hold the longest). Lines are returned as raw bytes: invalid UTF-8 is
// repaired by the JSON reader, so clean lines are never copied.
//
// A reader that follows a growing file takes whole lines only: a last line
// without its line feed may still be being written, so it is left for a
// later reader, and the buffer may be bounded so that a runaway line stops
// the read instead of the memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ostler {

class LineReader {
 public:
  static constexpr size_t kDefaultChunkSize = 1 << 20;
  // Readable bytes guaranteed behind every returned line, so that the JSON
  // parser can read it in place.
  static constexpr size_t kPadding = 64;

  // Opens `path` for reading from its first byte, or from `offset`;
  // nothing when it cannot be opened.
  [[nodiscard]] static std::optional<LineReader> open(const std::string& path,
                                                      size_t chunkSize = kDefaultChunkSize);
  [[nodiscard]] static std::optional<LineReader> openAt(const std::string& path, uint64_t offset,
                                                        size_t chunkSize = kDefaultChunkSize);

  // Only lines ended by a line feed are returned; reading stops, leaving
  // the rest, once more than `maxBufferedBytes` are held without one.
  void takeWholeLinesOnly(size_t maxBufferedBytes) {
    wholeLinesOnly_ = true;
    maxBufferedBytes_ = maxBufferedBytes;
  }

  LineReader(LineReader&& other) noexcept;
  LineReader& operator=(LineReader&& other) noexcept;
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader();

  // The next line without its line feed, or nothing at the end of the file.
  // The view stays valid until the next call; kPadding readable bytes follow
  // it. A read error ends the file.
  [[nodiscard]] std::optional<std::string_view> nextLine();

  // Closes the file; later calls of nextLine give nothing.
  void close();

  // The file offset at which the next line starts.
  [[nodiscard]] uint64_t nextLineOffset() const { return startOffset_ + bytesRead_ - (end_ - begin_); }

 private:
  LineReader(int fd, size_t chunkSize, uint64_t startOffset);
  void fill();

  int fd_ = -1;
  size_t chunkSize_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_ = 0;
  size_t begin_ = 0;  // first byte not yet returned
  size_t end_ = 0;    // one past the last byte read
  size_t scanned_ = 0;  // bytes from begin_ known to hold no line feed
  bool atEOF_ = false;
  bool wholeLinesOnly_ = false;
  size_t maxBufferedBytes_ = SIZE_MAX;
  uint64_t startOffset_ = 0;  // where reading began
  uint64_t bytesRead_ = 0;    // bytes read since
};

}  // namespace ostler
