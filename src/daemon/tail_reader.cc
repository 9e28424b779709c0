#include "daemon/tail_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "meter/text.h"

namespace ostler {

std::optional<TailReader> TailReader::open(const std::string& path, int64_t startOffset, size_t chunkSize,
                                           size_t maxBufferBytes) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return std::nullopt;
  if (startOffset > 0) (void)::lseek(fd, static_cast<off_t>(startOffset), SEEK_SET);
  return TailReader(fd, startOffset, chunkSize == 0 ? kDefaultChunkSize : chunkSize, maxBufferBytes);
}

TailReader::TailReader(int fd, int64_t offset, size_t chunkSize, size_t maxBufferBytes)
    : fd_(fd), offset_(offset), chunkSize_(chunkSize), maxBufferBytes_(maxBufferBytes) {}

TailReader::TailReader(TailReader&& o) noexcept
    : fd_(o.fd_), offset_(o.offset_), chunkSize_(o.chunkSize_), maxBufferBytes_(o.maxBufferBytes_),
      buffer_(std::move(o.buffer_)), capacity_(o.capacity_), begin_(o.begin_), end_(o.end_),
      scanned_(o.scanned_), atEOF_(o.atEOF_) {
  o.fd_ = -1;
  o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
}

TailReader& TailReader::operator=(TailReader&& o) noexcept {
  if (this != &o) {
    close();
    fd_ = o.fd_;
    offset_ = o.offset_;
    chunkSize_ = o.chunkSize_;
    maxBufferBytes_ = o.maxBufferBytes_;
    buffer_ = std::move(o.buffer_);
    capacity_ = o.capacity_;
    begin_ = o.begin_;
    end_ = o.end_;
    scanned_ = o.scanned_;
    atEOF_ = o.atEOF_;
    o.fd_ = -1;
    o.capacity_ = o.begin_ = o.end_ = o.scanned_ = 0;
  }
  return *this;
}

TailReader::~TailReader() { close(); }

void TailReader::close() {
  if (fd_ >= 0) {
    ::close(fd_);  // a failure to close loses nothing still needed
    fd_ = -1;
  }
  atEOF_ = true;
}

bool TailReader::fill() {
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  size_t needed = end_ + chunkSize_ + kPadding;
  if (needed > capacity_) {
    size_t grown = capacity_ == 0 ? needed : std::max(needed, capacity_ * 2);
    // Not zeroed: a torn last line makes a poll open its file every time,
    // and clearing a whole chunk for a few bytes was most of an idle tick.
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
    return false;
  }
  end_ += static_cast<size_t>(n);
  return true;
}

std::optional<std::string_view> TailReader::nextLine() {
  for (;;) {
    char* base = buffer_.get();
    if (end_ > begin_ + scanned_) {
      const void* nl = std::memchr(base + begin_ + scanned_, '\n', end_ - begin_ - scanned_);
      if (nl != nullptr) {
        size_t at = static_cast<size_t>(static_cast<const char*>(nl) - base);
        std::string_view line(base + begin_, at - begin_);
        offset_ += static_cast<int64_t>(line.size()) + 1;
        begin_ = at + 1;
        scanned_ = 0;
        return line;
      }
      scanned_ = end_ - begin_;
    }
    // No line feed in the buffer: a torn last line stays for the next read.
    if (atEOF_ || fd_ < 0) return std::nullopt;
    if (end_ - begin_ > maxBufferBytes_) return std::nullopt;
    fill();
  }
}

std::vector<std::string> TailReader::readAvailableLines() {
  std::vector<std::string> lines;
  while (auto line = nextLine()) {
    if (text::isValidUtf8(*line))
      lines.emplace_back(*line);
    else
      lines.push_back(text::repairUtf8(*line));
  }
  return lines;
}

}  // namespace ostler
