// Reads a file line by line in fixed-size chunks, splitting on byte 10 only.
// A carriage return before the line feed stays in the line; a last line with
// no line feed is still a line; lines have no length limit (the buffer grows
// to hold the longest). Lines are raw bytes: invalid UTF-8 is repaired by
// the JSON reader, so clean lines are never copied.
//
// A reading ends at the size the file had when it was opened: what is
// appended meanwhile is for the next reading.
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
#include <stop_token>
#include <string>
#include <string_view>

#include "platform/file_system.h"

namespace ostler {

class LineReader {
 public:
  static constexpr size_t kDefaultChunkSize = 1 << 20;
  // Readable bytes guaranteed behind every returned line, so that the JSON
  // parser can read it in place.
  static constexpr size_t kPadding = 64;

  // Opens `path` for reading from its first byte, or from `offset`.
  [[nodiscard]] static Result<LineReader> open(FileSystem& fs, const std::string& path, uint64_t offset = 0,
                                               size_t chunkSize = kDefaultChunkSize);

  // Ends the reading once `stop` is requested, as if at the end of the file:
  // a line of hundreds of megabytes must not hold up a shutdown.
  void stopWhen(std::stop_token stop) { stop_ = std::move(stop); }

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

  // The next line without its line feed, or nothing at the end. The view
  // stays valid until the next call; kPadding readable bytes follow it. A
  // read error ends the reading; `failure()` then says what it was.
  [[nodiscard]] std::optional<std::string_view> nextLine();

  // Passes over the rest of the line under way, up to its line feed, without
  // holding it: a reader that starts inside a line of hundreds of megabytes
  // must not gather what it drops. Gives up once the offset `notBeyond` is
  // read past; nextLineOffset() then says how far it went.
  void skipRestOfLine(uint64_t notBeyond);

  // Closes the file; later calls of nextLine give nothing.
  void close();

  // The file offset at which the next line starts.
  [[nodiscard]] uint64_t nextLineOffset() const { return position_ - (end_ - begin_); }
  // Where the reading ends: the file's size when it was opened.
  [[nodiscard]] uint64_t endOffset() const { return limit_; }
  // The read error that ended the reading early, if one did.
  [[nodiscard]] const std::optional<Error>& failure() const { return failure_; }
  // Whether a stop ended it early.
  [[nodiscard]] bool stopped() const { return stopped_; }

 private:
  LineReader(std::unique_ptr<ReadableFile> file, uint64_t offset, size_t chunkSize);
  void fill();

  std::unique_ptr<ReadableFile> file_;
  size_t chunkSize_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_ = 0;
  size_t begin_ = 0;    // first byte not yet returned
  size_t end_ = 0;      // one past the last byte read
  size_t scanned_ = 0;  // bytes from begin_ known to hold no line feed
  bool atEOF_ = false;
  bool wholeLinesOnly_ = false;
  size_t maxBufferedBytes_ = SIZE_MAX;
  uint64_t position_ = 0;  // file offset of end_
  uint64_t limit_ = 0;     // the file's size when opened
  std::optional<Error> failure_;
  std::stop_token stop_;
  bool stopped_ = false;
};

}  // namespace ostler
