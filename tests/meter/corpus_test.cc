// Transcripts that Claude Code wrote on other people's machines: every file
// reads without a crash, and every non-blank line decodes or is counted as
// skipped.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
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

// Why a line failed to decode, told by a second, independent JSON parser.
struct Failures {
  int notJson = 0;         // not JSON at all
  int notAnObject = 0;     // JSON, but its top level is no object
  int wrongKeyType = 0;    // an object with a key the meter reads of the wrong type
  std::vector<std::string> notJsonFiles;
};

TEST(CorpusTest, EveryLineDecodesOrIsCountedAsSkipped) {
  const auto files = corpusFiles();
  if (files.empty()) GTEST_SKIP() << "no corpus beside the checkout";

  TranscriptLineDecoder decoder;
  RawTranscriptLine line;
  Failures failures;
  int64_t lines = 0, blank = 0, decoded = 0;
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
      if (trimmed.empty()) {
        ++blank;
        continue;
      }
      if (decoder.decode(trimmed, false, &line) && decodes(line, kMeterReading)) {
        ++decoded;
        continue;
      }
      const auto value = nlohmann::json::parse(trimmed, nullptr, false);
      if (value.is_discarded()) {
        ++failures.notJson;
        failures.notJsonFiles.push_back(files[i].lexically_relative(testing::sharedDir()).string());
      } else if (!value.is_object()) {
        ++failures.notAnObject;
      } else {
        ++failures.wrongKeyType;
      }
    }
  }
  // The corpus census finds 3 lines that fail to parse: in three checkpoint
  // files, two objects written on one line. Beside them this reading skips 3
  // lines that are JSON but not objects ("massive error", 42, [1]) and 1
  // object whose `message` is a string, all in the hand-made edge cases of
  // one fixture. Every other line decodes.
  EXPECT_EQ(failures.notJson, 3);
  for (const auto& f : failures.notJsonFiles) EXPECT_NE(f.find("entireio__cli/entire/checkpoints"), std::string::npos) << f;
  EXPECT_EQ(failures.notAnObject, 3);
  EXPECT_EQ(failures.wrongKeyType, 1);
  const int64_t skipped = failures.notJson + failures.notAnObject + failures.wrongKeyType;
  EXPECT_EQ(decoded + skipped + blank, lines);

  // The whole pass over the same files counts the same lines as skipped.
  MeterOptions o;
  o.root = tree.str();
  const Receipt r = MeterEngine::run(systemFileSystem(), o);
  EXPECT_EQ(r.flags.skipped_lines, skipped);
  EXPECT_GT(r.totals.turns, 0);
  EXPECT_NEAR(r.fair_usd + r.waste.total_usd + r.mac_first.total_usd, r.totals.spent_usd, 2e-6);

  // Read once, as a reading shared with another fold, it gives the same
  // receipt.
  testing::IdleFold other;
  Receipt once =
      MeterEngine::runAll(systemFileSystem(), {o}, nullptr, systemClock(), {.alsoFold = {&other}})->front().receipt;
  once.generated_at = r.generated_at;
  EXPECT_EQ(once, r);
}

}  // namespace
}  // namespace ostler
