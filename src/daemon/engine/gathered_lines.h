// A transcript tree's lines as the live engine and the window scan read
// them, gathered by a fold on the meter's reading of the tree at start, so
// that the heavy pass before the first feed reads and parses the tree once.
// The engine and the scan keep an order of files of their own, so each file
// is held until they get to it; a file is served from here only while its
// size is still the one read, anything else is read from disk as usual.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/engine/live_line.h"
#include "transcript/tree_reading.h"

namespace ostler {

class GatheredLines final : public TreeFold {
 public:
  // A served line as the folds read it.
  struct Line {
    LiveLine line;
    bool decoded = false;  // false: the line failed to decode for the engine
  };

  // The lines gathered from one slice of a file.
  class SliceLines final : public TreeFold::Slice {
   public:
    void line(const ReadLine& read) override;

   private:
    friend class GatheredLines;
    [[nodiscard]] size_t bytes() const;  // heap bytes held

    // A tree's worth of lines is held, so each is packed to what every line
    // has, with the figures of assistant lines and the texts few lines
    // carry kept apart. Only whole lines are kept; a torn last line is read
    // again from disk.
    static constexpr uint32_t kNone = UINT32_MAX;
    struct Packed {
      InstantMs instant = 0;
      uint32_t assistant = kNone;  // index into `assistants_`
      uint32_t rare = kNone;       // index into `rare_`
      LiveLine::Type type = LiveLine::Type::kAbsent;
      bool decoded = false;
      bool hasInstant = false;
    };
    struct AssistantFigures {
      TurnUsage usage;
      std::string_view model;
      std::string_view requestId;
    };
    struct RareFields {
      std::string_view cwd;
      bool isApiErrorMessage = false;
      std::string_view errorText;
      std::optional<std::string_view> timestampText;
      int64_t imageCount = 0;
      int64_t imageTokens = 0;
      std::optional<std::string_view> typedText;
      std::string_view title;
    };
    void pack(const LiveLine& line, Packed& out);
    void unpack(const Packed& in, Line& out) const;

    StringArena strings_{4096};
    std::vector<Packed> lines_;
    std::vector<AssistantFigures> assistants_;
    std::vector<RareFields> rare_;
    uint64_t wholeLinesEnd_ = 0;
    bool tooLong_ = false;
    // A line named the project, or the chat: later lines of the slice are
    // read after it, so their folders, or their typed text, cannot matter.
    bool folderNamed_ = false;
    bool chatNamed_ = false;
    LiveLine lastAssistant_;  // whose strings the next may share
  };

  // Gathers at most about `maxBytes`; files past that are left to disk.
  explicit GatheredLines(size_t maxBytes) : maxBytes_(maxBytes) {}

  // The fold, on the reading.
  [[nodiscard]] std::unique_ptr<Slice> startSlice(const TranscriptFile& file, const FileSlice& slice) override;
  void foldSlice(const TranscriptFile& file, const FileSlice& slice, std::unique_ptr<Slice> share,
                 const SliceEnd& end) override;
  void endFile(const TranscriptFile& file) override;
  void endReading(bool completed) override;

  // Blocks until the reading is done.
  void waitUntilRead() const;

  // The file's non-blank whole lines, in order, with where they end: the
  // reading from byte 0 that a tail reader would give. Nothing when the file
  // was not gathered whole or its size is no longer `size`. May be called
  // from any thread while the reading goes on: it blocks until the file has
  // been read, or the whole reading is done, so that a reader that follows
  // its own order takes up each file as soon as it is read.
  struct Served {
    std::vector<const SliceLines*> slices;
    uint64_t wholeLinesEnd = 0;  // just past the last line feed
    // Calls `visit(line)` for each line served, in order; `line` is valid
    // during the call only.
    template <typename Visit>
    void forEachLine(Visit&& visit) const {
      visitLines(false, visit);
    }
    // The same for the decoded assistant lines alone, which are all a
    // reader of requests needs: the others are not unpacked.
    template <typename Visit>
    void forEachAssistantLine(Visit&& visit) const {
      visitLines(true, visit);
    }

   private:
    template <typename Visit>
    void visitLines(bool assistantOnly, Visit& visit) const {
      Line line;
      for (const SliceLines* s : slices)
        for (const SliceLines::Packed& p : s->lines_) {
          if (assistantOnly && (!p.decoded || p.type != LiveLine::Type::kAssistant)) continue;
          s->unpack(p, line);
          visit(static_cast<const Line&>(line));
        }
    }
  };
  [[nodiscard]] std::optional<Served> serve(const std::string& path, int64_t size) const;

  // Heap bytes held in gathered lines.
  [[nodiscard]] size_t bytes() const;

 private:
  // Unchanged once `done`, so it is read without the lock from then on.
  struct File {
    std::vector<std::unique_ptr<SliceLines>> slices;
    uint64_t readEnd = 0;
    bool usable = true;
    bool done = false;  // its last slice is taken
  };

  size_t maxBytes_;
  // The lock guards the fields below it.
  mutable std::mutex mutex_;
  mutable std::condition_variable readCondition_;  // the awaited file is done, or the reading
  mutable std::vector<const std::string*> awaited_;  // the files readers wait for
  size_t bytes_ = 0;
  std::unordered_map<std::string, File> files_;  // nodes stay put as it grows
  bool read_ = false;
};

}  // namespace ostler
