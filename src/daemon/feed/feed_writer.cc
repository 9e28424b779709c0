#include "daemon/feed/feed_writer.h"

namespace ostler {

FeedWriter::FeedWriter(FileSystem& fs, std::string path, double minIntervalSeconds, const Clock& clock)
    : fs_(fs), path_(std::move(path)), minInterval_(minIntervalSeconds), clock_(clock) {}

Result<uint64_t> FeedWriter::writeNow(const Feed& feed) {
  Result<uint64_t> written = writeWholeFile(fs_, path_, encoder_.encode(feed), 0600);
  if (written.ok()) lastWriteAt_ = clock_.nowMs();
  return written;
}

Result<bool> FeedWriter::writeDebounced(const Feed& feed, InstantMs now) {
  if (lastWriteAt_ && static_cast<double>(now - *lastWriteAt_) / 1000.0 < minInterval_) return false;
  Result<uint64_t> written = writeNow(feed);
  if (!written.ok()) return written.error();
  return true;
}

}  // namespace ostler
