#include "daemon/tail_reader.h"

#include "meter/text.h"

namespace ostler {

std::optional<TailReader> TailReader::open(const std::string& path, int64_t startOffset, size_t chunkSize,
                                           size_t maxBufferBytes) {
  auto reader = LineReader::openAt(path, startOffset > 0 ? static_cast<uint64_t>(startOffset) : 0, chunkSize);
  if (!reader) return std::nullopt;
  reader->takeWholeLinesOnly(maxBufferBytes);
  return TailReader(std::move(*reader));
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
