#include "transcript/tree_reading.h"

#include <algorithm>
#include <thread>

#include "transcript/byte_search.h"
#include "transcript/line_reader.h"
#include "transcript/ordered_work.h"
#include "transcript/text.h"

namespace ostler {
namespace {

// One decoder and one decoded line per thread, reused line after line.
TranscriptLineDecoder& threadDecoder() {
  thread_local TranscriptLineDecoder decoder;
  return decoder;
}

RawTranscriptLine& threadLine() {
  thread_local RawTranscriptLine line;
  return line;
}

// The consumer reads too whenever the next slice is not under way, so one
// core is left to it.
size_t workerThreads() {
  const unsigned n = std::thread::hardware_concurrency();
  return n <= 1 ? 1 : n - 1;
}

struct SliceTask {
  size_t file = 0;
  FileSlice slice;
};

// What the folds took from one slice, and how its reading ended.
struct SliceReading {
  std::vector<std::unique_ptr<TreeFold::Slice>> shares;
  SliceEnd end;
};

// Opens `path` at the first line that starts within the slice.
Result<LineReader> openSlice(FileSystem& fs, const std::string& path, const FileSlice& slice, size_t chunkBytes) {
  if (slice.begin == 0) return LineReader::open(fs, path, 0, chunkBytes);
  // Start one byte early: the line that holds that byte began in an earlier
  // slice (or ends right there), so it is dropped, and not gathered: a line
  // longer than many slices would be read again by each of them.
  auto reader = LineReader::open(fs, path, slice.begin - 1, chunkBytes);
  if (reader) reader.value().skipRestOfLine(slice.end);
  return reader;
}

SliceReading readSlice(FileSystem& fs, const TranscriptFile& file, const FileSlice& slice,
                       const std::vector<TreeFold*>& folds, size_t chunkBytes, const std::stop_token& stop) {
  SliceReading r;
  r.shares.resize(folds.size());
  if (stop.stop_requested()) return r;
  bool anyShare = false, everyLine = false;
  for (size_t i = 0; i < folds.size(); ++i) {
    r.shares[i] = folds[i]->startSlice(file, slice);
    if (!r.shares[i]) continue;
    anyShare = true;
    everyLine = everyLine || folds[i]->interest() == TreeFold::Interest::kEveryLine;
  }
  if (!anyShare) return r;

  auto opened = openSlice(fs, file.path, slice, chunkBytes);
  if (!opened) {
    r.end.failure = opened.error();
    for (auto& share : r.shares)
      if (share) share->finish();
    return r;
  }
  LineReader& reader = opened.value();
  reader.stopWhen(stop);
  r.end.opened = true;
  TranscriptLineDecoder& decoder = threadDecoder();
  RawTranscriptLine& raw = threadLine();
  ReadLine line;
  line.number = int64_t{slice.index} << 32;
  while (reader.nextLineOffset() < slice.end) {
    line.begin = reader.nextLineOffset();
    auto bytes = reader.nextLine();
    if (!bytes) {
      r.end.cutShort = slice.end != UINT64_MAX || reader.failure().has_value() || reader.stopped();
      break;
    }
    ++line.number;
    line.end = reader.nextLineOffset();
    line.terminated = line.end > line.begin + bytes->size();
    line.text = text::trimSpacesAndTabs(*bytes);
    line.decoded = nullptr;
    if (!line.text.empty()) {
      // A line that no fold reads is never parsed.
      if (!everyLine && !mayBeAssistantLine(line.text)) continue;
      if (decoder.decode(line.text, true, &raw)) line.decoded = &raw;
    } else if (!everyLine) {
      continue;
    }
    for (auto& share : r.shares)
      if (share) share->line(line);
  }
  r.end.readEnd = reader.nextLineOffset();
  r.end.failure = reader.failure();
  for (auto& share : r.shares)
    if (share) share->finish();
  return r;
}

}  // namespace

std::vector<FileSlice> sliceFile(uint64_t size, uint64_t sliceBytes) {
  std::vector<FileSlice> slices;
  const uint64_t count = size == 0 ? 1 : (size + sliceBytes - 1) / sliceBytes;
  for (uint64_t i = 0; i < count; ++i)
    slices.push_back({i * sliceBytes, i + 1 == count ? UINT64_MAX : (i + 1) * sliceBytes, static_cast<uint32_t>(i)});
  return slices;
}

TreeReading::TreeReading(FileSystem& fs, std::vector<TranscriptFile> files, TreeReadingOptions options)
    : fs_(fs), files_(std::move(files)), options_(options) {}

bool TreeReading::run(const std::stop_token& stop) {
  // Every slice of every file, with the bytes it covers as the file's size
  // stood when the reading began.
  std::vector<SliceTask> tasks;
  std::vector<uint64_t> taskBytes;
  std::vector<size_t> firstTask(files_.size() + 1);
  for (size_t f = 0; f < files_.size(); ++f) {
    firstTask[f] = tasks.size();
    auto info = fs_.stat(files_[f].path);
    const uint64_t size = info ? info.value().size : 0;
    for (const FileSlice& s : sliceFile(size, options_.sliceBytes)) {
      tasks.push_back({f, s});
      taskBytes.push_back(std::min(s.end, size) - std::min(s.begin, size));
    }
  }
  firstTask[files_.size()] = tasks.size();

  bool completed = true;
  {
    OrderedWork<SliceReading> work(
        tasks.size(),
        [&](size_t i) {
          return readSlice(fs_, files_[tasks[i].file], tasks[i].slice, folds_, options_.chunkBytes, stop);
        },
        workerThreads(), options_.window, std::move(taskBytes), options_.aheadBytes);
    for (size_t f = 0; f < files_.size() && completed; ++f) {
      const TranscriptFile& file = files_[f];
      for (TreeFold* fold : folds_) fold->beginFile(file);
      for (size_t t = firstTask[f]; t < firstTask[f + 1]; ++t) {
        SliceReading r = work.take(t);
        if (stop.stop_requested()) {
          completed = false;
          break;
        }
        if (r.end.failure) unreadable_.note(*r.end.failure);
        for (size_t i = 0; i < folds_.size(); ++i) folds_[i]->foldSlice(file, tasks[t].slice, std::move(r.shares[i]), r.end);
      }
      if (!completed) break;
      for (TreeFold* fold : folds_) fold->endFile(file);
    }
  }
  for (TreeFold* fold : folds_) fold->endReading(completed);
  return completed;
}

}  // namespace ostler
