#include "meter/line_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ostler {
namespace {

// The buffer of the last reader closed on this thread, kept for the next
// one: a pass opens thousands of files, and a fresh megabyte each time costs
// page faults for nothing.
struct SpareBuffer {
  std::unique_ptr<char[]> bytes;
  size_t capacity = 0;
};

SpareBuffer& spare() {
  thread_local SpareBuffer buffer;
  return buffer;
}

}  // namespace

std::optional<LineReader> LineReader::open(const std::string& path, size_t chunkSize) {
  return openAt(path, 0, chunkSize);
}

std::optional<LineReader> LineReader::openAt(const std::string& path, uint64_t offset, size_t chunkSize) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return std::nullopt;
  if (offset > 0 && ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    ::close(fd);
    return std::nullopt;
  }
  return LineReader(fd, chunkSize == 0 ? kDefaultChunkSize : chunkSize, offset);
}

LineReader::LineReader(int fd, size_t chunkSize, uint64_t startOffset)
    : fd_(fd), chunkSize_(chunkSize), startOffset_(startOffset) {
  SpareBuffer& s = spare();
  buffer_ = std::move(s.bytes);
  capacity_ = buffer_ ? s.capacity : 0;
  s.capacity = 0;
}

LineReader::LineReader(LineReader&& o) noexcept
    : fd_(o.fd_), chunkSize_(o.chunkSize_), buffer_(std::move(o.buffer_)), capacity_(o.capacity_),
      begin_(o.begin_), end_(o.end_), scanned_(o.scanned_), atEOF_(o.atEOF_), wholeLinesOnly_(o.wholeLinesOnly_),
      maxBufferedBytes_(o.maxBufferedBytes_), startOffset_(o.startOffset_), bytesRead_(o.bytesRead_) {
  o.fd_ = -1;
  o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
}

LineReader& LineReader::operator=(LineReader&& o) noexcept {
  if (this != &o) {
    close();
    fd_ = o.fd_;
    chunkSize_ = o.chunkSize_;
    buffer_ = std::move(o.buffer_);
    capacity_ = o.capacity_;
    begin_ = o.begin_;
    end_ = o.end_;
    scanned_ = o.scanned_;
    atEOF_ = o.atEOF_;
    wholeLinesOnly_ = o.wholeLinesOnly_;
    maxBufferedBytes_ = o.maxBufferedBytes_;
    startOffset_ = o.startOffset_;
    bytesRead_ = o.bytesRead_;
    o.fd_ = -1;
    o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
  }
  return *this;
}

LineReader::~LineReader() { close(); }

void LineReader::close() {
  if (fd_ >= 0) {
    ::close(fd_);  // a failure to close loses nothing we still need
    fd_ = -1;
  }
  atEOF_ = true;
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
  // Keep the unreturned bytes at the front, then make room for one chunk
  // plus the padding the parser reads past the end of a line.
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  size_t needed = end_ + chunkSize_ + kPadding;
  if (needed > capacity_) {
    // Room for a chunk behind a partial line of up to a chunk; longer lines
    // double the buffer, so that they cost few copies.
    size_t grown = std::max(needed, capacity_ == 0 ? 2 * chunkSize_ + kPadding : capacity_ * 2);
    auto bigger = std::make_unique_for_overwrite<char[]>(grown);
    if (end_ > 0) std::memcpy(bigger.get(), buffer_.get(), end_);
    buffer_ = std::move(bigger);
    capacity_ = grown;
  }
  ssize_t n;
  do {
    n = ::read(fd_, buffer_.get() + end_, chunkSize_);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    atEOF_ = true;
    return;
  }
  end_ += static_cast<size_t>(n);
  bytesRead_ += static_cast<uint64_t>(n);
}

std::optional<std::string_view> LineReader::nextLine() {
  for (;;) {
    char* base = buffer_.get();
    if (end_ > begin_ + scanned_) {
      const void* nl = std::memchr(base + begin_ + scanned_, '\n', end_ - begin_ - scanned_);
      if (nl != nullptr) {
        size_t at = static_cast<size_t>(static_cast<const char*>(nl) - base);
        std::string_view line(base + begin_, at - begin_);
        begin_ = at + 1;
        scanned_ = 0;
        return line;
      }
      scanned_ = end_ - begin_;
    }
    if (atEOF_ || fd_ < 0) {
      if (begin_ == end_ || wholeLinesOnly_) return std::nullopt;
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
