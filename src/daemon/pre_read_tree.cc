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
  if (!out.line.cwd.empty() && !text::lastPathComponent(out.line.cwd).empty()) folderNamed_ = true;
  if (out.line.typedText && surelyNamesChat(*out.line.typedText)) chatNamed_ = true;
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
