#include "daemon/pre_read_tree.h"

#include "daemon/tail_reader.h"
#include "meter/text.h"

namespace ostler {
namespace {

// A tail reader gives up on a line that outgrows its buffer; a file with a
// line anywhere near that size is left to the tail reader itself.
constexpr uint64_t kLongestServedLine = TailReader::kMaxBufferBytes / 2;

}  // namespace

size_t PreReadTree::SliceLines::bytes() const {
  return lines_.capacity() * sizeof(Packed) + assistants_.capacity() * sizeof(AssistantFigures) +
         rare_.capacity() * sizeof(RareFields) + strings_.capacityBytes();
}

void PreReadTree::SliceLines::line(uint64_t begin, uint64_t end, bool terminated, std::string_view trimmed,
                                   const simdjson::dom::object* root, const LineTap::MeterReading* meter) {
  if (end - begin > kLongestServedLine) tooLong_ = true;
  if (!terminated) return;
  wholeLinesEnd_ = end;
  if (trimmed.empty()) return;
  Packed& out = lines_.emplace_back();
  // Most lines are taken from the meter's decoding; a line it failed, or
  // whose block list only its stricter blocks failed, is decoded here.
  const bool fromMeter = meter != nullptr && !(meter->raw.message && meter->raw.message->contentListFailed);
  const CountedImages images{fromMeter ? meter->imageCount : 0, fromMeter ? meter->imageTokens : 0};
  if (fromMeter)
    out.decoded = daemonLineFromMeter(meter->raw, &raw_);
  else
    out.decoded = root != nullptr && decodeDaemonRawLine(*root, &raw_);
  if (!out.decoded) return;
  const LiveLine line = digestLiveLine(raw_, strings_, {.cwd = !folderNamed_, .typedText = !chatNamed_},
                                       fromMeter ? &images : nullptr);
  pack(line, out);
  if (!line.cwd.empty() && !text::lastPathComponent(line.cwd).empty()) folderNamed_ = true;
  if (line.typedText && surelyNamesChat(*line.typedText)) chatNamed_ = true;
}

void PreReadTree::SliceLines::pack(const LiveLine& line, Packed& out) {
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

void PreReadTree::SliceLines::unpack(const Packed& in, Line& out) const {
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

std::unique_ptr<LineTap::Slice> PreReadTree::openSlice() const { return std::make_unique<SliceLines>(); }

void PreReadTree::take(const std::string& path, uint64_t readEnd, std::unique_ptr<LineTap::Slice> slice,
                       bool lastOfFile) {
  auto* lines = static_cast<SliceLines*>(slice.get());
  if (lines != nullptr) lines->raw_ = {};  // the decoder's scratch is of no further use
  const size_t size = lines != nullptr ? lines->bytes() : 0;
  {
    std::lock_guard lock(mutex_);
    File& file = files_[path];
    if (readEnd > file.readEnd) file.readEnd = readEnd;
    if (lastOfFile) file.done = true;
    const bool fits = lines != nullptr && !lines->tooLong_ && bytes_ + size <= maxBytes_;
    if (file.usable && fits) {
      bytes_ += size;
      file.slices.emplace_back(static_cast<SliceLines*>(slice.release()));
    } else if (file.usable) {
      // A file is served whole or not at all.
      for (const auto& s : file.slices) bytes_ -= s->bytes();
      file.slices.clear();
      file.usable = false;
    }
  }
  if (lastOfFile) readCondition_.notify_all();
}

void PreReadTree::readingDone() {
  {
    std::lock_guard lock(mutex_);
    read_ = true;
  }
  readCondition_.notify_all();
}

void PreReadTree::waitUntilRead() const {
  std::unique_lock lock(mutex_);
  readCondition_.wait(lock, [this] { return read_; });
}

size_t PreReadTree::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::optional<PreReadTree::Served> PreReadTree::serve(const std::string& path, int64_t size) const {
  const File* file = nullptr;
  {
    std::unique_lock lock(mutex_);
    auto it = files_.find(path);
    while (!read_ && (it == files_.end() || !it->second.done)) {
      readCondition_.wait(lock);
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
