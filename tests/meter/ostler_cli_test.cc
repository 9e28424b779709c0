// The `ostler receipt` command, run as a user runs it.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "meter/plain_text_receipt.h"
#include "support/transcript_tree.h"

namespace ostler {
namespace {

using namespace testing;
using testing::json;  // not ostler::json

// A period backwards and a root that cannot be one are usage errors too: a
// receipt of zeros would pass for an answer.
TEST(OstlerCliTest, UsageErrorsPrintOneLineAndTheUsageAndExit2) {
  TempDir root;
  const std::string file = (root.path() / "notes.txt").string();
  std::ofstream(file) << "not a folder\n";
  const std::string inRoot = " --root " + quoted(root.str());
  for (const std::string& args : {
           "receipt --bogus" + inRoot,
           "receipt --since 2026-13-01" + inRoot,
           "receipt --until 2026-11" + inRoot,
           "receipt --since-instant yesterday" + inRoot,
           "receipt --until-instant 2026-11-01" + inRoot,
           "receipt --since 2026-11-20 --until 2026-11-16" + inRoot,
           "receipt --since-instant 2026-11-20T00:00:00Z --until-instant 2026-11-19T23:59:59.999Z" + inRoot,
           std::string("receipt --root ''"),
           "receipt --root " + quoted(file),
           inRoot,
       }) {
    const Outcome o = runOstler(args);
    EXPECT_EQ(o.status, 2) << args;
    EXPECT_EQ(o.err.rfind("ostler: ", 0), 0u) << args;
    EXPECT_NE(o.err.find("\nUsage:"), std::string::npos) << args;
    EXPECT_TRUE(o.out.empty()) << args;
  }
  // A period of one day, or of one instant to the next, is no error.
  EXPECT_EQ(runOstler("receipt --since 2026-11-16 --until 2026-11-16" + inRoot).status, 0);
}

// A default root that is missing or holds no transcripts is said in one
// line that names the flag to give another, and the receipt of nothing is
// still printed. A root named on the command line must be there.
TEST(OstlerCliTest, NothingToReadIsSaidInOneLine) {
  MeterOptions nothing;
  nothing.root = "/nowhere";
  const auto empty = linesOf(renderPlainTextReceipt(MeterEngine::run(systemFileSystem(), nothing)), "Generated ");
  TempDir dir;
  std::filesystem::create_directories(dir.path() / "with" / ".claude" / "projects");
  std::filesystem::create_directories(dir.path() / "without");
  for (const char* home : {"with", "without"}) {
    const Outcome o = runOstler("receipt", "HOME=" + quoted((dir.path() / home).string()));
    EXPECT_EQ(o.status, 0) << home;
    EXPECT_EQ(linesOf(o.err).size(), 1u) << o.err;
    EXPECT_NE(o.err.find("--root"), std::string::npos) << o.err;
    EXPECT_EQ(linesOf(o.out, "Generated "), empty) << home;
  }
  const std::string missing = (dir.path() / "nowhere").string();
  const Outcome o = runOstler("receipt --root " + quoted(missing));
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "ostler: no transcript folder at " + missing + "\n");
  EXPECT_TRUE(o.out.empty());
}

TEST(OstlerCliTest, PrintsTheReceiptAsTextOrJsonAndWritesTheLoops) {
  Tree tree;
  std::vector<json> lines;
  for (int i = 0; i < 5; ++i) lines.push_back(user(json::array({imageBlock(4'003)}), at(i)));
  lines.push_back(assistant("a1", "claude-opus-4-5", {.output = 10'000}, at(10)));
  tree.main("-home-dev-shop", "aaaaaaaa-1", lines);
  const Receipt inProcess = tree.run();

  const Outcome text = runOstler("receipt --root " + quoted(tree.root().string()));
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(linesOf(text.out, "Generated "), linesOf(renderPlainTextReceipt(inProcess), "Generated "));
  EXPECT_TRUE(text.err.empty()) << "no progress when standard error is not a terminal";

  TempDir dir;
  const auto loopsFile = dir.path() / "loops.json";
  const Outcome asJson =
      runOstler("receipt --json --root " + quoted(tree.root().string()) + " --loops " + quoted(loopsFile.string()));
  ASSERT_EQ(asJson.status, 0) << asJson.err;
  auto decoded = decodeReceipt(json::parse(asJson.out));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  Receipt fromCli = decoded.value();
  fromCli.generated_at = inProcess.generated_at;
  EXPECT_EQ(fromCli, inProcess);

  const json loops = json::parse(testing::readFile(loopsFile));
  const json expected = json::array({{{"sessionId", "aaaaaaaa-1"},
                                      {"project", "shop"},
                                      {"images", 5},
                                      {"raw_usd", 0.025},
                                      {"kept_usd", 0.025},
                                      {"first_image_timestamp", at(0)},
                                      {"last_image_timestamp", at(4)},
                                      {"file_count", 1}}});
  EXPECT_EQ(loops, expected);
}

// Only regular files are read: FIFOs, a device and a folder named like
// transcripts are passed over and counted, and a chat still being written is
// read up to the size it had, so the receipt comes whatever the tree holds.
TEST(OstlerCliTest, ReadsOnlyRegularFilesAndSaysWhatItCouldNotRead) {
  TempDir dir;
  const std::filesystem::path root = dir.path() / "projects";
  const int64_t unreadable = makeHostileTree(root);
  const std::filesystem::path growing = root / "-home-ana-code-infra" / "growing.jsonl";
  std::atomic<int> written = 0;
  const auto writeOne = [&] {
    const int i = written;
    appendFile(growing,
               assistant("grow-" + std::to_string(i), "claude-sonnet-4-5", {.output = 100}, at(i)).dump() + "\n");
    written = i + 1;
  };
  while (written < 50) writeOne();
  std::atomic<bool> done = false;
  std::thread writer([&] {
    while (!done) {
      writeOne();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const Outcome o = runOstler("receipt --json --root " + quoted(root.string()));
  done = true;
  writer.join();

  ASSERT_EQ(o.status, 0) << o.err;
  const std::string first = (root / "-home-ana-code-infra" / "d.jsonl").string();
  EXPECT_EQ(
      o.err.rfind("ostler: " + std::to_string(unreadable) + " files could not be read (first: " + first + ": ", 0), 0u)
      << o.err;
  EXPECT_EQ(linesOf(o.err).size(), 1u) << o.err;
  const Outcome samples = runOstler("receipt --json --root " + quoted((sourceDir() / "samples" / "projects").string()));
  ASSERT_EQ(samples.status, 0) << samples.err;
  const int64_t sampleTurns = json::parse(samples.out)["totals"]["turns"];
  const int64_t turns = json::parse(o.out)["totals"]["turns"];
  EXPECT_GE(turns, sampleTurns + 50);
  EXPECT_LE(turns, sampleTurns + written);
}

}  // namespace
}  // namespace ostler
