// The repository root of a chat, read from the `cwd` of its first lines.
// Transcripts run to many megabytes while the field sits in their first
// lines, so the head is read in blocks and only a head whose lines are
// huge sends the reading through the whole file.
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>

#include "closeout/closeout_engine.h"
#include "transcript/text.h"

namespace ostler::CloseoutEngine {
namespace {

// Found roots only, for the life of the process: a chat's first lines never
// change, and one without a root yet may gain it.
struct RootCache {
  std::mutex mutex;
  std::unordered_map<std::string, std::string> roots;
};

RootCache& rootCache() {
  static RootCache* cache = new RootCache();
  return *cache;
}

// The first non-empty string `cwd` among the first `maxLines` pieces of
// `text` cut at line feeds; pieces that are not JSON objects are passed
// over.
std::optional<std::string> scanLines(std::string_view text, int64_t maxLines) {
  size_t start = 0;
  for (int64_t n = 0; n < maxLines && start <= text.size(); ++n) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const nlohmann::json line = nlohmann::json::parse(text.substr(start, end - start), nullptr, false);
    if (line.is_object()) {
      const auto cwd = line.find("cwd");
      if (cwd != line.end() && cwd->is_string() && !cwd->get_ref<const std::string&>().empty()) {
        return cwd->get<std::string>();
      }
    }
    if (end == text.size()) break;
    start = end + 1;
  }
  return std::nullopt;
}

struct HeadScan {
  std::optional<std::string> found;
  bool boundTruncated = false;  // the byte cap stopped the reading short of `maxLines` lines
};

HeadScan fromBoundedHeadRead(FileSystem& fs, const std::string& path, int64_t maxLines) {
  HeadScan out;
  Result<std::unique_ptr<ReadableFile>> file = fs.openForReading(path);
  if (!file) return out;
  std::string head;
  int64_t lineFeeds = 0;
  char block[kHeadReadBlock];
  while (lineFeeds < maxLines && head.size() < kHeadReadCap) {
    Result<size_t> got = file.value()->readAt(head.size(), block, sizeof block);
    if (!got || got.value() == 0) break;
    const std::string_view read(block, got.value());
    for (const char c : read) lineFeeds += c == '\n' ? 1 : 0;
    head.append(read);
  }
  out.boundTruncated = head.size() >= kHeadReadCap && lineFeeds < maxLines;
  out.found = scanLines(text::repairUtf8(head), maxLines);
  return out;
}

std::optional<std::string> fromWholeFileRead(FileSystem& fs, const std::string& path, int64_t maxLines) {
  Result<std::string> bytes = readWholeFile(fs, path);
  if (!bytes || !text::isValidUtf8(bytes.value())) return std::nullopt;
  return scanLines(bytes.value(), maxLines);
}

}  // namespace

std::optional<std::string> repoRoot(FileSystem& fs, const std::string& transcriptPath, int64_t maxLines) {
  RootCache& cache = rootCache();
  {
    const std::lock_guard lock(cache.mutex);
    const auto hit = cache.roots.find(transcriptPath);
    if (hit != cache.roots.end()) return hit->second;
  }
  HeadScan head = fromBoundedHeadRead(fs, transcriptPath, maxLines);
  std::optional<std::string> found = std::move(head.found);
  if (!found && head.boundTruncated) found = fromWholeFileRead(fs, transcriptPath, maxLines);
  if (!found) return std::nullopt;
  const std::lock_guard lock(cache.mutex);
  cache.roots.emplace(transcriptPath, *found);
  return found;
}

}  // namespace ostler::CloseoutEngine
