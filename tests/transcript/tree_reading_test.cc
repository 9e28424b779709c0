// One reading of a tree for several folds: ordered results whatever the
// threads, slices that never cut a line, and what each fold is handed.
#include "transcript/tree_reading.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "support/fake_file_system.h"
#include "transcript/ordered_work.h"

namespace ostler {
namespace {

TEST(OrderedWorkTest, HandsResultsBackInOrderWithinItsWindowAndBudget) {
  std::vector<uint64_t> sizes(300);
  for (size_t i = 0; i < sizes.size(); ++i) sizes[i] = i % 10 == 0 ? 50 : 1;  // a large item now and then
  for (size_t threads : {0u, 1u, 3u}) {
    std::mutex mutex;
    size_t requested = 0;  // the item the consumer asks for; those past it are ahead
    std::vector<size_t> started;
    uint64_t worstAhead = 0;
    size_t worstCount = 0;
    OrderedWork<int> work(
        sizes.size(),
        [&](size_t i) {
          std::lock_guard lock(mutex);
          started.push_back(i);
          uint64_t ahead = 0;
          size_t count = 0;
          for (size_t j : started)
            if (j > requested) ahead += sizes[j], ++count;
          // One item may always be made ahead, however large.
          if (count > 1) worstAhead = std::max(worstAhead, ahead);
          worstCount = std::max(worstCount, count);
          return static_cast<int>(i) * 3;
        },
        threads, 8, sizes, 20);
    for (size_t i = 0; i < sizes.size(); ++i) {
      {
        std::lock_guard lock(mutex);
        requested = i;
      }
      ASSERT_EQ(work.take(i), static_cast<int>(i) * 3) << threads;
    }
    EXPECT_LE(worstAhead, 20u) << threads;
    EXPECT_LE(worstCount, 8u) << threads;
  }
}

// Records what a reading hands it, as a trace of events.
class Probe final : public TreeFold {
 public:
  explicit Probe(Interest interest = Interest::kEveryLine) : interest_(interest) {}

  class Lines final : public Slice {
   public:
    void line(const ReadLine& l) override {
      std::string what = l.text.empty()              ? "blank"
                         : l.decoded == nullptr        ? "bad"
                         : l.decoded->type.has_value() ? std::string(*l.decoded->type)
                                                       : "untyped";
      if (!l.terminated) what += " torn";
      seen.push_back(what);
      numbers.push_back(l.number);
    }
    void finish() override { finished = true; }
    std::vector<std::string> seen;
    std::vector<int64_t> numbers;
    bool finished = false;
  };

  Interest interest() const override { return interest_; }
  std::unique_ptr<Slice> startSlice(const TranscriptFile&, const FileSlice&) override {
    return std::make_unique<Lines>();
  }
  void beginFile(const TranscriptFile& file) override { trace.push_back("begin " + file.path); }
  void foldSlice(const TranscriptFile&, const FileSlice& slice, std::unique_ptr<Slice> share,
                 const SliceEnd& end) override {
    auto& lines = static_cast<Lines&>(*share);
    EXPECT_TRUE(lines.finished);
    if (!end.opened) trace.push_back("unopened: " + end.failure.value_or(Error{}).message);
    for (const auto& s : lines.seen) trace.push_back(s);
    if (slice.index > 0) {
      EXPECT_GT(lines.numbers.empty() ? INT64_MAX : lines.numbers.front(), lastNumber);
    }
    if (!lines.numbers.empty()) lastNumber = lines.numbers.back();
  }
  void endFile(const TranscriptFile& file) override { trace.push_back("end " + file.path); }
  void endReading(bool completed) override { trace.push_back(completed ? "done" : "stopped"); }

  std::vector<std::string> trace;

 private:
  Interest interest_;
  int64_t lastNumber = 0;
};

std::string line(const std::string& type, int n) {
  return R"({"type":")" + type + R"(","n":)" + std::to_string(n) + "}";
}

TEST(TreeReadingTest, EveryFoldGetsEachLineOnceInFileOrderWhereverSlicesFall) {
  testing::FakeFileSystem fs;
  std::string text;
  std::vector<std::string> expected = {"begin /p/a.jsonl"};
  for (int i = 0; i < 60; ++i) {
    text += line(i % 3 == 0 ? "user" : "assistant", i) + "\n";
    expected.push_back(i % 3 == 0 ? "user" : "assistant");
    if (i % 7 == 0) text += "  \n", expected.push_back("blank");
    if (i % 11 == 0) text += "not json\n", expected.push_back("bad");
  }
  text += line("assistant", 99);  // no final line feed
  expected.insert(expected.end(), {"assistant torn", "end /p/a.jsonl", "begin /p/b.jsonl", "unopened: cannot open "
                                   "/p/b.jsonl: permission denied", "end /p/b.jsonl", "done"});
  fs.put("/p/a.jsonl", text);
  fs.refuseOpening("/p/b.jsonl");
  for (uint64_t sliceBytes : {1u, 7u, 64u, 100u, 333u, 1u << 20}) {
    Probe first, second;
    TreeReading reading(fs, {{"/p/a.jsonl", "a", "/p", false}, {"/p/b.jsonl", "b", "/p", false}},
                        {.sliceBytes = sliceBytes, .window = 3, .aheadBytes = 200, .chunkBytes = 5});
    reading.add(first);
    reading.add(second);
    EXPECT_TRUE(reading.run());
    EXPECT_EQ(first.trace, expected) << sliceBytes;
    EXPECT_EQ(second.trace, expected) << sliceBytes;
  }
  // The last slice reads on to the end; no empty slice past an exact multiple.
  EXPECT_EQ(sliceFile(8, 4).size(), 2u);
  EXPECT_EQ(sliceFile(8, 4).back().end, UINT64_MAX);
  EXPECT_EQ(sliceFile(0, 4).size(), 1u);
}

TEST(TreeReadingTest, FoldsOfAssistantLinesAloneLeaveTheOthersUnparsed) {
  testing::FakeFileSystem fs;
  fs.put("/p/a.jsonl", line("user", 1) + "\n" + line("assistant", 2) + "\n\n" + R"({"message":{"type":"assistant"}})" +
                           "\n" + R"({"type":"assistant",)" + "\n");
  Probe assistantOnly(TreeFold::Interest::kAssistantLines);
  TreeReading reading(fs, {{"/p/a.jsonl", "a", "/p", false}});
  reading.add(assistantOnly);
  ASSERT_TRUE(reading.run());
  // A line that may be an assistant line is parsed; one that surely is not
  // (another type, or none at the top), or is blank, is never handed over.
  EXPECT_EQ(assistantOnly.trace, (std::vector<std::string>{"begin /p/a.jsonl", "assistant", "bad", "end /p/a.jsonl",
                                                            "done"}));

  // Beside a fold that reads every line, it is handed every line.
  Probe every, alsoAssistant(TreeFold::Interest::kAssistantLines);
  TreeReading shared(fs, {{"/p/a.jsonl", "a", "/p", false}});
  shared.add(every);
  shared.add(alsoAssistant);
  ASSERT_TRUE(shared.run());
  EXPECT_EQ(every.trace, alsoAssistant.trace);
  EXPECT_EQ(every.trace.size(), 8u);  // two lines more: the user line and the blank one
}

TEST(TreeReadingTest, AStopEndsTheReadingBetweenSlicesAndEveryFoldHearsOfIt) {
  testing::FakeFileSystem fs;
  std::vector<TranscriptFile> files;
  for (int f = 0; f < 50; ++f) {
    const std::string path = "/p/" + std::to_string(f) + ".jsonl";
    fs.put(path, std::string(4000, ' ') + "\n" + line("user", f) + "\n");
    files.push_back({path, std::to_string(f), "/p", false});
  }
  std::stop_source stop;
  class Stopper final : public TreeFold {
   public:
    explicit Stopper(std::stop_source& stop) : stop_(stop) {}
    std::unique_ptr<Slice> startSlice(const TranscriptFile&, const FileSlice&) override { return nullptr; }
    void foldSlice(const TranscriptFile&, const FileSlice&, std::unique_ptr<Slice>, const SliceEnd&) override {
      if (++slices_ == 3) stop_.request_stop();
    }
    std::stop_source& stop_;
    int slices_ = 0;
  } stopper(stop);
  Probe probe;
  TreeReading reading(fs, files, {.sliceBytes = 1000});
  reading.add(stopper);
  reading.add(probe);
  EXPECT_FALSE(reading.run(stop.get_token()));
  EXPECT_EQ(probe.trace.back(), "stopped");
  EXPECT_LT(probe.trace.size(), 10u);
}

}  // namespace
}  // namespace ostler
