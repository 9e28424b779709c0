#include "transcript/line_reader.h"

#include <algorithm>
#include <cstring>

namespace ostler {
namespace {

// The buffer of the last reader closed on this thread, kept for the next
// one: a pass opens thousands of files and slices, and a fresh buffer each
// time would be handed back to the system and faulted in again.
struct SpareBuffer {
  std::unique_ptr<char[]> bytes;
  size_t capacity = 0;
};

SpareBuffer& spare() {
  thread_local SpareBuffer buffer;
  return buffer;
}

}  // namespace

Result<LineReader> LineReader::open(FileSystem& fs, const std::string& path, uint64_t offset, size_t chunkSize) {
  auto file = fs.openForReading(path);
  if (!file) return file.error();
  return LineReader(std::move(file).value(), offset, chunkSize == 0 ? kDefaultChunkSize : chunkSize);
}

LineReader::LineReader(std::unique_ptr<ReadableFile> file, uint64_t offset, size_t chunkSize)
    : file_(std::move(file)), chunkSize_(chunkSize), position_(offset), limit_(file_->sizeWhenOpened()) {
  SpareBuffer& s = spare();
  buffer_ = std::move(s.bytes);
  capacity_ = buffer_ ? s.capacity : 0;
  s.capacity = 0;
}

LineReader::LineReader(LineReader&& o) noexcept
    : file_(std::move(o.file_)), chunkSize_(o.chunkSize_), buffer_(std::move(o.buffer_)), capacity_(o.capacity_),
      begin_(o.begin_), end_(o.end_), scanned_(o.scanned_), atEOF_(o.atEOF_), wholeLinesOnly_(o.wholeLinesOnly_),
      maxBufferedBytes_(o.maxBufferedBytes_), position_(o.position_), limit_(o.limit_),
      failure_(std::move(o.failure_)), stop_(std::move(o.stop_)), stopped_(o.stopped_) {
  o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
}

LineReader& LineReader::operator=(LineReader&& o) noexcept {
  if (this != &o) {
    close();
    file_ = std::move(o.file_);
    chunkSize_ = o.chunkSize_;
    buffer_ = std::move(o.buffer_);
    capacity_ = o.capacity_;
    begin_ = o.begin_;
    end_ = o.end_;
    scanned_ = o.scanned_;
    atEOF_ = o.atEOF_;
    wholeLinesOnly_ = o.wholeLinesOnly_;
    maxBufferedBytes_ = o.maxBufferedBytes_;
    position_ = o.position_;
    limit_ = o.limit_;
    failure_ = std::move(o.failure_);
    stop_ = std::move(o.stop_);
    stopped_ = o.stopped_;
    o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
  }
  return *this;
}

LineReader::~LineReader() { close(); }

void LineReader::close() {
  file_.reset();
  atEOF_ = true;
  position_ -= end_ - begin_;
  begin_ = end_ = 0;
  scanned_ = 0;
  SpareBuffer& s = spare();
  if (buffer_ && capacity_ > s.capacity) {
    s.bytes = std::move(buffer_);
    s.capacity = capacity_;
  }
  buffer_.reset();
  capacity_ = 0;
}

void LineReader::fill() {
  if (stop_.stop_requested()) stopped_ = true;
  if (position_ >= limit_ || failure_ || stopped_) {
    atEOF_ = true;
    return;
  }
  // Keep the unreturned bytes at the front, then make room for one chunk
  // plus the padding the parser reads past the end of a line.
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  const size_t needed = end_ + chunkSize_ + kPadding;
  if (needed > capacity_) {
    // Room for a chunk behind a partial line of up to a chunk; longer lines
    // double the buffer, so that they cost few copies.
    const size_t grown = std::max(needed, capacity_ == 0 ? 2 * chunkSize_ + kPadding : capacity_ * 2);
    auto bigger = std::make_unique_for_overwrite<char[]>(grown);
    if (end_ > 0) std::memcpy(bigger.get(), buffer_.get(), end_);
    buffer_ = std::move(bigger);
    capacity_ = grown;
  }
  const size_t want = static_cast<size_t>(std::min<uint64_t>(chunkSize_, limit_ - position_));
  auto n = file_->readAt(position_, buffer_.get() + end_, want);
  if (!n) failure_ = n.error();
  if (!n || n.value() == 0) {
    atEOF_ = true;
    return;
  }
  end_ += n.value();
  position_ += n.value();
}

void LineReader::skipRestOfLine(uint64_t notBeyond) {
  for (;;) {
    if (end_ > begin_) {
      char* base = buffer_.get();
      const void* nl = std::memchr(base + begin_, '\n', end_ - begin_);
      scanned_ = 0;
      if (nl != nullptr) {
        begin_ = static_cast<size_t>(static_cast<const char*>(nl) - base) + 1;
        return;
      }
      begin_ = end_;
    }
    if (position_ >= notBeyond || atEOF_ || !file_) return;
    fill();
  }
}

std::optional<std::string_view> LineReader::nextLine() {
  for (;;) {
    char* base = buffer_.get();
    if (end_ > begin_ + scanned_) {
      const void* nl = std::memchr(base + begin_ + scanned_, '\n', end_ - begin_ - scanned_);
      if (nl != nullptr) {
        const size_t at = static_cast<size_t>(static_cast<const char*>(nl) - base);
        std::string_view line(base + begin_, at - begin_);
        begin_ = at + 1;
        scanned_ = 0;
        return line;
      }
      scanned_ = end_ - begin_;
    }
    if (atEOF_ || !file_) {
      // A stop cuts the reading where it is: what is held is no whole line.
      if (begin_ == end_ || wholeLinesOnly_ || stopped_) return std::nullopt;
      std::string_view line(base + begin_, end_ - begin_);
      begin_ = end_;
      scanned_ = 0;
      return line;
    }
    if (end_ - begin_ > maxBufferedBytes_) return std::nullopt;
    fill();
  }
}

}  // namespace ostler
