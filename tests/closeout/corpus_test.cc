// Transcripts that Claude Code wrote on other people's machines: every file
// of the shared corpus is read by the closeout's reader and graded against
// an empty handoff without a crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "closeout/checks.h"
#include "closeout/transcript_reader.h"
#include "support/test_support.h"

namespace ostler {
namespace {

TEST(CorpusTest, EveryFileReadsAndGradesAgainstAnEmptyHandoff) {
  const auto dir = testing::sharedDir() / "corpus";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no shared corpus at " << dir.string();
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty());

  FileSystemExistence fm(systemFileSystem());
  const CloseoutDocument empty;
  size_t transcripts = 0, lines = 0, edits = 0;
  for (const auto& file : files) {
    auto parsed = TranscriptReader::parseLines(systemFileSystem(), file.string());
    ASSERT_TRUE(parsed.ok()) << parsed.error().message;
    const auto& read = parsed.value();
    if (file.extension() == ".jsonl" && !read.empty()) ++transcripts;
    lines += read.size();
    edits += TranscriptReader::editEvents(read).size();
    // Every edit leaves its marker in the text that is summarised.
    const std::string chunkable = TranscriptReader::chunkableText(read);
    size_t markers = 0;
    for (size_t at = chunkable.find("[file touched: "); at != std::string::npos;
         at = chunkable.find("[file touched: ", at + 1))
      ++markers;
    EXPECT_GE(markers, TranscriptReader::editEvents(read).size()) << file;
    (void)TranscriptReader::groundingText(read);
    (void)TranscriptReader::plainText(read);
    const Checks::Verdict v = Checks::grade(empty, file.parent_path().string(), "/nonexistent-home", read, std::nullopt, fm);
    EXPECT_FALSE(v.overallPass) << file;
    EXPECT_EQ(v.c1.detail, "no paths named in handoff or doc_updates") << file;
    EXPECT_EQ(v.c3.detail, "missing: STATE; missing: DECISIONS; missing: NEXT; missing: FILES TOUCHED") << file;
    EXPECT_TRUE(v.grounding && v.grounding->isVoid) << file;
    EXPECT_TRUE(v.encodedJSON(true).ok()) << file;
  }
  // Most of the corpus is transcripts, and some of them edit files.
  EXPECT_GT(transcripts, files.size() / 2);
  EXPECT_GT(lines, 1000u);
  EXPECT_GT(edits, 0u);
}

}  // namespace
}  // namespace ostler
