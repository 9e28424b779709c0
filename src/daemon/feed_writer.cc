#include "daemon/feed_writer.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "daemon/atomic_file.h"

namespace ostler {

FeedWriter::FeedWriter(std::string path, double minIntervalSeconds, const Clock& clock)
    : path_(std::move(path)), minInterval_(minIntervalSeconds), clock_(clock) {}

Result<int64_t> FeedWriter::writeNow(const Feed& feed) {
  Result<int64_t> written = AtomicFile::write(path_, encoder_.encode(feed));
  if (!written.ok()) return written;
  // The temporary file is created 0600 already; setting the mode again after
  // the rename settles it whatever the system did on the way.
  if (::chmod(path_.c_str(), S_IRUSR | S_IWUSR) != 0)
    return Error{"cannot set the mode of " + path_ + ": " + std::strerror(errno)};
  lastWriteAt_ = clock_.nowMs();
  return written;
}

Result<bool> FeedWriter::writeDebounced(const Feed& feed, InstantMs now) {
  if (lastWriteAt_ && static_cast<double>(now - *lastWriteAt_) / 1000.0 < minInterval_) return false;
  Result<int64_t> written = writeNow(feed);
  if (!written.ok()) return written.error();
  return true;
}

}  // namespace ostler
