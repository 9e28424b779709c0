// A transcript tree's lines as the live engine and the window scan read
// them, gathered from the meter's reading at start, so that the heavy pass
// before the first feed reads and parses the tree once instead of three
// times. A file is served from here only while its size is still the one
// read; anything else is read from disk as usual.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/live_line.h"
#include "meter/meter_engine.h"

namespace ostler {

class PreReadTree final : public LineTap {
 public:
  // A served line as the folds read it.
  struct Line {
    LiveLine line;
    bool decoded = false;  // false: the line failed to decode
  };

  // The lines a reader gathered from one slice of a file.
  class SliceLines final : public LineTap::Slice {
   public:
    void line(uint64_t begin, uint64_t end, bool terminated, std::string_view trimmed,
              const simdjson::dom::object* root, const LineTap::MeterReading* meter) override;

   private:
    friend class PreReadTree;
    [[nodiscard]] size_t bytes() const;  // heap bytes held

    // A tree's worth of lines is held until the engine, which keeps an
    // order of files of its own, gets to them: each is packed to what
    // every line has, with the figures of assistant lines and the texts few
    // lines carry kept apart. Only whole lines are kept; a torn last line
    // is read again from disk.
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

    DaemonRawLine raw_;
    StringArena strings_{4096};
    std::vector<Packed> lines_;
    std::vector<AssistantFigures> assistants_;
    std::vector<RareFields> rare_;
    uint64_t wholeLinesEnd_ = 0;
    bool tooLong_ = false;
    // A line named the project, or the chat: later lines of the file are
    // read after it, so their folders, or their typed text, cannot matter.
    bool folderNamed_ = false;
    bool chatNamed_ = false;
  };

  // Gathers at most about `maxBytes`; files past that are left to disk.
  explicit PreReadTree(size_t maxBytes) : maxBytes_(maxBytes) {}

  std::unique_ptr<LineTap::Slice> openSlice() const override;
  void take(const std::string& path, uint64_t readEnd, std::unique_ptr<LineTap::Slice> slice,
            bool lastOfFile) override;
  void readingDone() override;

  // Blocks until the reading is done. The gathering side calls readingDone
  // at the latest when its run ends, so that a run that never read does not
  // leave waiters.
  void waitUntilRead() const;

  // The file's non-blank whole lines, in order, with where they end: the
  // reading from byte 0 that a tail reader would give. Nothing when the file
  // was not gathered whole or its size is no longer `size`. May be called
  // from any thread while the reading goes on: it blocks until the file has
  // been read, or the whole reading is done, so that a reader that follows
  // the reading's order takes up each file as soon as it is read.
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
  mutable std::condition_variable readCondition_;  // a file is done, or the reading
  size_t bytes_ = 0;
  std::unordered_map<std::string, File> files_;  // nodes stay put as it grows
  bool read_ = false;
};

}  // namespace ostler
