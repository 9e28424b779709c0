#include "closeout/closeout_tail_reader.h"

#include "transcript/text.h"

namespace ostler {

std::optional<CloseoutTailReader> CloseoutTailReader::open(FileSystem& fs, const std::string& path, int64_t startOffset,
                                                           size_t chunkSize) {
  auto reader = TailReader::open(fs, path, startOffset, chunkSize, kMaxBufferedBytes);
  if (!reader) return std::nullopt;
  return CloseoutTailReader(std::move(reader).value());
}

std::vector<CloseoutTailReader::Line> CloseoutTailReader::readAvailableLines() {
  std::vector<Line> lines;
  int64_t start = reader_.offset();
  while (auto bytes = reader_.nextLine()) {
    Line line;
    line.text = text::isValidUtf8(*bytes) ? std::string(*bytes) : text::repairUtf8(*bytes);
    line.byteStart = start;
    line.byteEnd = start + static_cast<int64_t>(bytes->size());
    start = reader_.offset();
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace ostler
