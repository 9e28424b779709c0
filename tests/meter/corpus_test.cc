// Transcripts that Claude Code wrote on other people's machines: every file
// reads without a crash, and every non-blank line decodes or is counted as
// skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "meter/meter_engine.h"
#include "meter/meter_line.h"
#include "support/test_support.h"
#include "transcript/line_reader.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/text.h"

namespace ostler {
namespace {

std::vector<std::filesystem::path> corpusFiles() {
  std::vector<std::filesystem::path> files;
  const auto dir = testing::sharedDir() / "corpus" / "real-transcripts";
  if (!std::filesystem::is_directory(dir)) return files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
    if (entry.path().extension() == ".jsonl") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

TEST(CorpusTest, EveryLineDecodesOrIsCountedAsSkipped) {
  const auto files = corpusFiles();
  if (files.empty()) GTEST_SKIP() << "no corpus beside the checkout";

  TranscriptLineDecoder decoder;
  RawTranscriptLine line;
  int64_t lines = 0, blank = 0, decoded = 0;
  std::vector<std::string> skipped;  // the file of each line that does not decode
  testing::TempDir tree;
  std::filesystem::create_directories(tree.path() / "-corpus");
  for (size_t i = 0; i < files.size(); ++i) {
    // Each file becomes a session of its own, by a link, not a copy.
    std::filesystem::create_symlink(files[i], tree.path() / "-corpus" / (std::to_string(1000 + i) + ".jsonl"));
    auto reader = LineReader::open(systemFileSystem(), files[i].string(), 0, 4096);
    ASSERT_TRUE(reader.ok()) << files[i];
    while (auto raw = reader.value().nextLine()) {
      ++lines;
      const std::string_view trimmed = text::trimSpacesAndTabs(*raw);
      if (trimmed.empty())
        ++blank;
      else if (decoder.decode(trimmed, false, &line) && decodes(line, kMeterReading))
        ++decoded;
      else
        skipped.push_back(files[i].string());
    }
  }
  // Seven lines do not decode: in three checkpoint files, two objects
  // written on one line; in the hand-made edge cases of one fixture, three
  // JSON values that are not objects ("massive error", 42, [1]) and one
  // object whose `message` is a string.
  EXPECT_EQ(skipped.size(), 7u);
  EXPECT_EQ(std::count_if(skipped.begin(), skipped.end(),
                          [](const std::string& f) { return f.find("entireio__cli/entire/checkpoints") != f.npos; }),
            3);
  EXPECT_EQ(decoded + int64_t(skipped.size()) + blank, lines);

  // The whole pass over the same files counts the same lines as skipped.
  MeterOptions o;
  o.root = tree.str();
  const Receipt r = MeterEngine::run(systemFileSystem(), o);
  EXPECT_EQ(r.flags.skipped_lines, int64_t(skipped.size()));
  EXPECT_GT(r.totals.turns, 0);
  EXPECT_NEAR(r.fair_usd + r.waste.total_usd + r.mac_first.total_usd, r.totals.spent_usd, 2e-6);
}

}  // namespace
}  // namespace ostler
