// One reading of a transcript tree for every reader that needs it: each file
// is read and each line parsed and decoded once, and handed, in order, to
// every fold registered on the reading.
//
// A fold works in two steps. On worker threads it takes what it needs from
// the lines of one slice of a file (a `TreeFold::Slice`, made per slice and
// filled line by line); on the reading's own thread it folds those slices,
// file after file in the reading's order and slice after slice within a
// file. Only that second step is sequential, so what a fold finds never
// depends on timing. Folds never see one another.
//
// Files are cut into slices of about 2 MiB so that both cores share a large
// file and few lines wait decoded ahead of the folds: a slice holds the lines
// that start within it; its reader reads on past its end to finish its last
// line. Slices are read a few ahead of the folds, bounded by count and by
// bytes, whatever the size of the tree.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_system.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/session_discovery.h"
#include "transcript/unreadable.h"

namespace ostler {

struct FileSlice {
  uint64_t begin = 0;
  uint64_t end = 0;    // UINT64_MAX for a file's last slice: it reads to the file's end
  uint32_t index = 0;  // within its file
};

// Slices of `fileSize` bytes at most `sliceBytes` long; one for an empty
// file.
[[nodiscard]] std::vector<FileSlice> sliceFile(uint64_t fileSize, uint64_t sliceBytes);

// One line as a reading hands it to its folds.
struct ReadLine {
  uint64_t begin = 0;       // its first byte in the file
  uint64_t end = 0;         // one past its line feed, or past its last byte when it has none
  bool terminated = false;  // ended by a line feed; a torn last line is not
  // The line trimmed of spaces and tabs; empty for a blank line.
  std::string_view text;
  // Its decoding, when it is a JSON object; null for a blank line and for
  // one that is not JSON. Valid during the call only.
  const RawTranscriptLine* decoded = nullptr;
  // Orders the lines of a file: the slice's index in the high 32 bits, the
  // line's number within the slice, from 1, in the low.
  int64_t number = 0;
};

// How a slice's reading ended, as its fold learns with the slice.
struct SliceEnd {
  bool opened = false;    // the file could be opened for this slice
  bool cutShort = false;  // it ended before the slice's end: the file shrank, or a read failed
  uint64_t readEnd = 0;   // where the reading stopped
  std::optional<Error> failure;  // why it could not be opened, or why a read failed
};

class TreeFold {
 public:
  enum class Interest { kEveryLine, kAssistantLines };

  // One slice's share of a fold, filled on a worker thread.
  class Slice {
   public:
    virtual ~Slice() = default;
    // Every line of the slice in order, blank ones and undecodable ones too
    // (or, when the fold's interest is assistant lines only and no other
    // fold of the reading wants more, at least each line that may be one).
    virtual void line(const ReadLine& line) = 0;
    // After the slice's last line, still on the worker thread.
    virtual void finish() {}
  };

  virtual ~TreeFold() = default;

  // Which lines the fold reads. A slice that only such folds read is
  // searched for assistant lines, and the others are never parsed.
  [[nodiscard]] virtual Interest interest() const { return Interest::kEveryLine; }

  // On a worker thread, before the slice's first line: the fold's share of
  // it, or nothing when the fold does not read this slice.
  [[nodiscard]] virtual std::unique_ptr<Slice> startSlice(const TranscriptFile& file, const FileSlice& slice) = 0;

  // On the reading's thread, in order: before a file's first slice, each
  // slice (with what startSlice gave, possibly nothing), after its last.
  virtual void beginFile(const TranscriptFile& file) { (void)file; }
  virtual void foldSlice(const TranscriptFile& file, const FileSlice& slice, std::unique_ptr<Slice> share,
                         const SliceEnd& end) = 0;
  virtual void endFile(const TranscriptFile& file) { (void)file; }
  // After the last file, also when the reading was stopped early.
  virtual void endReading(bool completed) { (void)completed; }
};

struct TreeReadingOptions {
  uint64_t sliceBytes = 2 << 20;
  // Slices read ahead of the folds, by count and by bytes of the files.
  size_t window = 6;
  uint64_t aheadBytes = 12 << 20;
  // Each slice is read in chunks of this size: its reader reads on past
  // the slice's end to finish its last line, so this bounds the bytes read
  // twice, and a chunk is still in the core's cache when it is parsed.
  size_t chunkBytes = 256 << 10;
};

class TreeReading {
 public:
  // A reading of `files`, in this order.
  TreeReading(FileSystem& fs, std::vector<TranscriptFile> files, TreeReadingOptions options = {});

  // Registers `fold`, which must outlive `run`.
  void add(TreeFold& fold) { folds_.push_back(&fold); }

  // Reads every file and folds it. A stop request is looked at between
  // slices; the reading then ends early, telling each fold so. Returns
  // whether it read every file.
  bool run(const std::stop_token& stop = {});

  [[nodiscard]] const std::vector<TranscriptFile>& files() const { return files_; }
  // The files it could not read, after `run`.
  [[nodiscard]] const Unreadable& unreadable() const { return unreadable_; }

 private:
  FileSystem& fs_;
  std::vector<TranscriptFile> files_;
  TreeReadingOptions options_;
  std::vector<TreeFold*> folds_;
  Unreadable unreadable_;
};

}  // namespace ostler
