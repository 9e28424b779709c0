#include "daemon/engine/gathered_lines.h"

#include "transcript/tail_reader.h"
#include "transcript/text.h"

namespace ostler {
namespace {

// A tail reader gives up on a line that outgrows its buffer; a file with a
// line anywhere near that size is left to the tail reader itself.
constexpr uint64_t kLongestServedLine = TailReader::kMaxBufferBytes / 2;

}  // namespace

size_t GatheredLines::SliceLines::bytes() const {
  return lines_.capacity() * sizeof(Packed) + assistants_.capacity() * sizeof(AssistantFigures) +
         rare_.capacity() * sizeof(RareFields) + strings_.capacityBytes();
}

void GatheredLines::SliceLines::line(const ReadLine& read) {
  if (read.end - read.begin > kLongestServedLine) tooLong_ = true;
  if (!read.terminated) return;
  wholeLinesEnd_ = read.end;
  if (read.text.empty()) return;
  Packed& out = lines_.emplace_back();
  out.decoded = read.decoded != nullptr && decodes(*read.decoded, kEngineReading);
  if (!out.decoded) return;
  const LiveLine line = digestLiveLine(*read.decoded, strings_, {.cwd = !folderNamed_, .typedText = !chatNamed_},
                                      &lastAssistant_);
  pack(line, out);
  if (line.type == LiveLine::Type::kAssistant) lastAssistant_ = line;
  if (!line.cwd.empty() && !text::lastPathComponent(line.cwd).empty()) folderNamed_ = true;
  if (line.typedText && surelyNamesChat(*line.typedText)) chatNamed_ = true;
}

void GatheredLines::SliceLines::pack(const LiveLine& line, Packed& out) {
  out.type = line.type;
  out.hasInstant = line.instant.has_value();
  out.instant = line.instant.value_or(0);
  if (line.type == LiveLine::Type::kAssistant) {
    out.assistant = static_cast<uint32_t>(assistants_.size());
    assistants_.push_back({line.usage, line.model, line.requestId});
  }
  const bool rare = !line.cwd.empty() || line.isApiErrorMessage || line.imageCount != 0 || line.imageTokens != 0 ||
                    line.typedText || !line.title.empty();
  if (!rare) return;
  out.rare = static_cast<uint32_t>(rare_.size());
  rare_.push_back({line.cwd, line.isApiErrorMessage, line.errorText, line.timestampText, line.imageCount,
                   line.imageTokens, line.typedText, line.title});
}

void GatheredLines::SliceLines::unpack(const Packed& in, Line& out) const {
  out.decoded = in.decoded;
  LiveLine& line = out.line;
  line = LiveLine{};
  line.type = in.type;
  if (in.hasInstant) line.instant = in.instant;
  if (in.assistant != kNone) {
    const AssistantFigures& a = assistants_[in.assistant];
    line.usage = a.usage;
    line.model = a.model;
    line.requestId = a.requestId;
  }
  if (in.rare != kNone) {
    const RareFields& r = rare_[in.rare];
    line.cwd = r.cwd;
    line.isApiErrorMessage = r.isApiErrorMessage;
    line.errorText = r.errorText;
    line.timestampText = r.timestampText;
    line.imageCount = r.imageCount;
    line.imageTokens = r.imageTokens;
    line.typedText = r.typedText;
    line.title = r.title;
  }
}

std::unique_ptr<TreeFold::Slice> GatheredLines::startSlice(const TranscriptFile&, const FileSlice&) {
  return std::make_unique<SliceLines>();
}

void GatheredLines::foldSlice(const TranscriptFile& file, const FileSlice&, std::unique_ptr<Slice> share,
                              const SliceEnd& end) {
  // An unopened slice, or one short of its end (the file shrank, or a read
  // failed), must not be taken for whole.
  auto* lines = end.opened && !end.cutShort ? static_cast<SliceLines*>(share.get()) : nullptr;
  const size_t size = lines != nullptr ? lines->bytes() : 0;
  std::lock_guard lock(mutex_);
  File& held = files_[file.path];
  if (end.readEnd > held.readEnd) held.readEnd = end.readEnd;
  const bool fits = lines != nullptr && !lines->tooLong_ && bytes_ + size <= maxBytes_;
  if (held.usable && fits) {
    bytes_ += size;
    held.slices.emplace_back(static_cast<SliceLines*>(share.release()));
  } else if (held.usable) {
    // A file is served whole or not at all.
    for (const auto& s : held.slices) bytes_ -= s->bytes();
    held.slices.clear();
    held.usable = false;
  }
}

void GatheredLines::endFile(const TranscriptFile& file) {
  bool awaited = false;
  {
    std::lock_guard lock(mutex_);
    files_[file.path].done = true;
    for (const std::string* path : awaited_) awaited = awaited || *path == file.path;
  }
  // Files end a thousand times a reading; only the one a reader waits for
  // wakes it.
  if (awaited) readCondition_.notify_all();
}

void GatheredLines::endReading(bool) {
  {
    std::lock_guard lock(mutex_);
    read_ = true;
  }
  readCondition_.notify_all();
}

void GatheredLines::waitUntilRead() const {
  std::unique_lock lock(mutex_);
  readCondition_.wait(lock, [this] { return read_; });
}

size_t GatheredLines::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::optional<GatheredLines::Served> GatheredLines::serve(const std::string& path, int64_t size) const {
  const File* file = nullptr;
  {
    std::unique_lock lock(mutex_);
    auto it = files_.find(path);
    while (!read_ && (it == files_.end() || !it->second.done)) {
      awaited_.push_back(&path);
      readCondition_.wait(lock);
      std::erase(awaited_, &path);
      it = files_.find(path);
    }
    if (it == files_.end() || !it->second.done) return std::nullopt;
    file = &it->second;
  }
  if (!file->usable || size < 0 || file->readEnd != static_cast<uint64_t>(size)) return std::nullopt;
  Served served;
  for (const auto& s : file->slices) {
    if (s->wholeLinesEnd_ > served.wholeLinesEnd) served.wholeLinesEnd = s->wholeLinesEnd_;
    served.slices.push_back(s.get());
  }
  return served;
}

}  // namespace ostler
