#include "transcript/tail_reader.h"

#include "transcript/text.h"

namespace ostler {

Result<TailReader> TailReader::open(FileSystem& fs, const std::string& path, int64_t startOffset, size_t chunkSize,
                                    size_t maxBufferBytes) {
  auto reader = LineReader::open(fs, path, startOffset > 0 ? static_cast<uint64_t>(startOffset) : 0, chunkSize);
  if (!reader) return reader.error();
  reader.value().takeWholeLinesOnly(maxBufferBytes);
  return TailReader(std::move(reader).value());
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
