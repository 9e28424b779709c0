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
  return lines_.capacity() * sizeof(Line) + strings_.capacityBytes();
}

void PreReadTree::SliceLines::line(uint64_t begin, uint64_t end, bool terminated, std::string_view trimmed,
                                   const simdjson::dom::object* root) {
  if (end - begin > kLongestServedLine) tooLong_ = true;
  if (terminated) wholeLinesEnd_ = end;
  if (trimmed.empty()) return;
  Line& out = lines_.emplace_back();
  out.whole = terminated;
  out.decoded = root != nullptr && decodeDaemonRawLine(*root, &raw_);
  if (!out.decoded) return;
  out.line = digestLiveLine(raw_, strings_, {.cwd = !folderNamed_, .typedText = !chatNamed_});
  if (out.line.type == LiveLine::Type::kAssistant) ++assistantLines_;
  if (!out.line.cwd.empty() && !text::lastPathComponent(out.line.cwd).empty()) folderNamed_ = true;
  if (out.line.typedText && surelyNamesChat(*out.line.typedText)) chatNamed_ = true;
}

std::unique_ptr<LineTap::Slice> PreReadTree::openSlice() const { return std::make_unique<SliceLines>(); }

void PreReadTree::take(const std::string& path, uint64_t readEnd, std::unique_ptr<LineTap::Slice> slice) {
  File& file = files_[path];
  if (readEnd > file.readEnd) file.readEnd = readEnd;
  if (!file.usable) return;
  auto* lines = static_cast<SliceLines*>(slice.get());
  size_t size = 0;
  if (lines != nullptr) {
    lines->raw_ = {};  // the decoder's scratch is of no further use
    size = lines->bytes();
  }
  if (lines == nullptr || lines->tooLong_ || bytes_ + size > maxBytes_) {
    // A file is served whole or not at all.
    for (const auto& s : file.slices) bytes_ -= s->bytes();
    file.slices.clear();
    file.usable = false;
    return;
  }
  bytes_ += size;
  assistantLines_ += lines->assistantLines_;
  file.slices.emplace_back(static_cast<SliceLines*>(slice.release()));
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

std::optional<PreReadTree::Served> PreReadTree::serve(const std::string& path, int64_t size) const {
  auto it = files_.find(path);
  if (it == files_.end() || !it->second.usable || size < 0 || it->second.readEnd != static_cast<uint64_t>(size))
    return std::nullopt;
  Served served;
  for (const auto& s : it->second.slices) {
    if (s->wholeLinesEnd_ > served.wholeLinesEnd) served.wholeLinesEnd = s->wholeLinesEnd_;
    for (const Line& l : s->lines_)
      if (l.whole) served.lines.push_back(&l);
  }
  return served;
}

}  // namespace ostler
