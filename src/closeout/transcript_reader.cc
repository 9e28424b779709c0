#include "closeout/transcript_reader.h"

#include <algorithm>
#include <map>

#include "transcript/text.h"

namespace ostler::TranscriptReader {
namespace {

// Pieces joined by a blank line.
class Joiner {
 public:
  // Adds `piece` trimmed of white space and line ends, unless that leaves
  // nothing.
  void addTrimmed(std::string_view piece) {
    piece = text::trimWhitespaceAndNewlines(piece);
    if (!piece.empty()) add(piece);
  }
  void add(std::string_view piece) {
    if (!any_) {
      any_ = true;
    } else {
      out_.append("\n\n");
    }
    out_.append(piece);
  }
  std::string take() { return std::move(out_); }

 private:
  std::string out_;
  bool any_ = false;
};

const TranscriptContent* contentOf(const TranscriptLine& line) {
  if (!line.message || !line.message->content) return nullptr;
  return &*line.message->content;
}

}  // namespace

std::vector<TranscriptLine> parseLines(std::string_view jsonl) {
  std::vector<TranscriptLine> lines;
  TranscriptLineDecoder decoder;
  RawTranscriptLine raw;
  size_t begin = 0;
  while (begin < jsonl.size()) {
    size_t end = jsonl.find('\n', begin);
    if (end == std::string_view::npos) end = jsonl.size();
    const std::string_view piece = text::trimSpacesAndTabs(jsonl.substr(begin, end - begin));
    begin = end + 1;
    if (piece.empty() || !decoder.decode(piece, /*padded=*/false, &raw)) continue;
    if (auto line = TranscriptLine::from(raw)) lines.push_back(std::move(*line));
  }
  return lines;
}

Result<std::vector<TranscriptLine>> parseLines(FileSystem& fs, const std::string& path) {
  auto bytes = readWholeFile(fs, path, uint64_t{1} << 34);
  if (!bytes) return bytes.error();
  if (!text::isValidUtf8(bytes.value())) return fileError("cannot read", path, "not valid UTF-8");
  return parseLines(std::string_view(bytes.value()));
}

std::string plainText(std::span<const TranscriptLine> lines) {
  Joiner out;
  for (const TranscriptLine& line : lines) {
    const TranscriptContent* content = contentOf(line);
    if (content == nullptr) continue;
    const std::string text = content->plainText();
    if (!text::trimWhitespaceAndNewlines(text).empty()) out.add(text);
  }
  return out.take();
}

std::string chunkableText(std::span<const TranscriptLine> lines) {
  Joiner out;
  for (const TranscriptLine& line : lines) {
    const TranscriptContent* content = contentOf(line);
    if (content == nullptr) continue;
    out.addTrimmed(content->plainText());
    // The model is told to look for this marker; its wording is fixed.
    for (const TranscriptContentBlock* block : content->toolUseBlocks())
      if (isEdit(*block)) out.add("[file touched: " + *block->input->filePath + "]");
  }
  return out.take();
}

std::string groundingText(std::span<const TranscriptLine> lines) {
  Joiner out;
  for (const TranscriptLine& line : lines) {
    const TranscriptContent* content = contentOf(line);
    if (content == nullptr) continue;
    out.addTrimmed(content->plainText());
    for (const TranscriptContentBlock* block : content->toolResultBlocks())
      if (block->content) out.addTrimmed(block->content->plainText());
  }
  return out.take();
}

std::vector<EditEvent> editEvents(std::span<const TranscriptLine> lines) {
  std::vector<EditEvent> events;
  for (size_t i = 0; i < lines.size(); ++i) {
    const TranscriptContent* content = contentOf(lines[i]);
    if (content == nullptr) continue;
    for (const TranscriptContentBlock* block : content->toolUseBlocks())
      if (isEdit(*block)) events.push_back({static_cast<int64_t>(i), *block->input->filePath});
  }
  return events;
}

int64_t finalThirdStartIndex(int64_t lineCount) { return lineCount - lineCount / 3; }

std::vector<EditedFile> topEditedFilesInFinalThird(std::span<const TranscriptLine> lines, int64_t top) {
  const int64_t start = finalThirdStartIndex(static_cast<int64_t>(lines.size()));
  std::map<std::string, int64_t> counts;
  for (EditEvent& e : editEvents(lines.subspan(static_cast<size_t>(start)))) ++counts[std::move(e.filePath)];
  std::vector<EditedFile> files;
  files.reserve(counts.size());
  for (auto& [path, count] : counts) files.push_back({path, count});
  // The map gives byte order; a stable sort keeps it among equal counts.
  std::stable_sort(files.begin(), files.end(),
                   [](const EditedFile& a, const EditedFile& b) { return a.count > b.count; });
  if (top < static_cast<int64_t>(files.size())) files.resize(static_cast<size_t>(std::max<int64_t>(top, 0)));
  return files;
}

}  // namespace ostler::TranscriptReader
