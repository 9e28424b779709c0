// The engine executable end to end: it follows a growing tree, publishes
// feeds, stops cleanly on SIGTERM, and a second run picks up its saved
// state.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "daemon/feed/feed.h"
#include "daemon/state/persisted_state.h"
#include "line_builder.h"
#include "platform/clock.h"
#include "support/test_support.h"

extern char** environ;

namespace ostler {
namespace {

namespace fs = std::filesystem;
using Seconds = std::chrono::duration<double>;
using testing::TempDir;

// A running ostlerd, killed if a test leaves it running.
class RunningDaemon {
 public:
  RunningDaemon(const std::vector<std::string>& args, const fs::path& logPath) {
    std::vector<char*> argv;
    std::string bin = OSTLER_BIN_DIR "/ostlerd";
    argv.push_back(bin.data());
    std::vector<std::string> copies = args;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (posix_spawn(&pid_, bin.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~RunningDaemon() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  [[nodiscard]] bool started() const { return pid_ > 0; }

  // Sends SIGTERM and waits up to `timeout`; the exit status, or -1.
  int terminate(Seconds timeout) {
    kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
};

// The first feed that satisfies `accept` within `timeout`.
std::optional<Feed> waitForFeed(const fs::path& path, Seconds timeout, const std::function<bool(const Feed&)>& accept) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    std::error_code ec;
    if (fs::exists(path, ec)) {
      auto feed = decodeFeedJSON(testing::readFile(path));
      if (feed.ok() && accept(feed.value())) return feed.value();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return std::nullopt;
}

const FeedSession* row(const std::vector<FeedSession>& rows, const std::string& id) {
  for (const auto& r : rows)
    if (r.sessionId == id) return &r;
  return nullptr;
}

TEST(OstlerdTest, FollowsAGrowingTreeStopsCleanlyAndRestartsFromItsState) {
  TempDir dir;
  const fs::path root = dir.path() / "projects";
  fs::copy(testing::sourceDir() / "samples" / "projects", root, fs::copy_options::recursive);
  const std::string sessionId = "e0c7f3a9-2d18-4b6e-a5f4-93c1b7d2e860";
  const fs::path transcript = root / "-home-ana-code-infra" / (sessionId + ".jsonl");
  ASSERT_TRUE(fs::exists(transcript));
  testing::appendFile(transcript, "not a line of JSON\n");
  const fs::path feedPath = dir.path() / "feed.json";
  const fs::path statePath = dir.path() / "state" / "engine.json";
  const std::vector<std::string> args = {"--root", root.string(), "--feed", feedPath.string(), "--state",
                                         statePath.string(), "--interval", "0.2"};

  Feed before;
  Feed after;
  {
    RunningDaemon daemon(args, dir.path() / "first.log");
    ASSERT_TRUE(daemon.started());
    auto first = waitForFeed(feedPath, Seconds(60), [](const Feed&) { return true; });
    ASSERT_TRUE(first) << testing::readFile(dir.path() / "first.log");
    before = *first;
    // A cold start read every line, the tree's bad one and older days' too.
    ASSERT_TRUE(before.diagnostics.exclusions);
    EXPECT_GT(before.diagnostics.exclusions->parse_skip.count, 0);

    // A new request in one chat, written as Claude Code writes it.
    const InstantMs stamp = systemClock().nowMs() - 200;
    const std::string line =
        testing::turnLine(ISO8601::fractional(stamp), "req-appended-by-test",
                          {.input = 1000, .output = 500, .cacheRead = 20'000, .cache5m = 3'000}, "claude-sonnet-4-5");
    const auto appendedAt = std::chrono::steady_clock::now();
    testing::appendFile(transcript, line + "\n");
    auto changed = waitForFeed(feedPath, Seconds(2), [&](const Feed& f) {
      const FeedSession* r = row(f.sessions_all, sessionId);
      return f.today.spent_usd > before.today.spent_usd && r != nullptr && r->context_tokens == 24'000 &&
             r->last_activity == ISO8601::fractional(stamp);
    });
    const double latency = Seconds(std::chrono::steady_clock::now() - appendedAt).count();
    ASSERT_TRUE(changed) << "no feed showed the new request within two seconds:\n" << testing::readFile(feedPath);
    after = *changed;
    EXPECT_EQ(after.today.turns, before.today.turns + 1);
    const FeedSession* recent = row(after.sessions, sessionId);
    ASSERT_NE(recent, nullptr) << "a chat active a moment ago is among the recent ones";
    EXPECT_EQ(recent->temperature, "warm");
    RecordProperty("latency_seconds", std::to_string(latency));

    EXPECT_EQ(daemon.terminate(Seconds(10)), 0) << testing::readFile(dir.path() / "first.log");
  }
  // The state holds the appended line's offset.
  auto saved = PersistedStateIO::load(systemFileSystem(), statePath.string(), root.string());
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->fileOffsets.at(transcript.string()), static_cast<int64_t>(fs::file_size(transcript)));

  fs::remove(feedPath);
  {
    RunningDaemon daemon(args, dir.path() / "second.log");
    ASSERT_TRUE(daemon.started());
    auto restarted = waitForFeed(feedPath, Seconds(60), [](const Feed&) { return true; });
    ASSERT_TRUE(restarted) << testing::readFile(dir.path() / "second.log");
    // Restored, not cold: no line was read again, so nothing was excluded,
    // and today's figures carry on from the first run.
    EXPECT_EQ(restarted->diagnostics.exclusions, std::nullopt);
    EXPECT_EQ(restarted->today.spent_usd, after.today.spent_usd);
    EXPECT_EQ(restarted->today.turns, after.today.turns);
    const FeedSession* r = row(restarted->sessions_all, sessionId);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->context_tokens, 24'000);
    EXPECT_EQ(daemon.terminate(Seconds(10)), 0) << testing::readFile(dir.path() / "second.log");
  }
}

// A feed it could never write is an error at start, not a silent run.
TEST(OstlerdTest, UsageErrorsExitTwoAndAFeedWithNowhereToGoExitsOne) {
  TempDir dir;
  const std::string root = " --root '" + dir.str() + "'";
  for (auto [args, status] : std::vector<std::pair<std::string, int>>{
           {"--interval -1", 2},
           {"--no-such-flag", 2},
           {"--root ''", 2},
           {root + " --feed '" + dir.str() + "/nope/sub/feed.json'", 1},
           {root + " --feed '" + dir.str() + "'", 1},
       }) {
    std::string out;
    EXPECT_EQ(testing::runCommand("'" OSTLER_BIN_DIR "/ostlerd' " + args + " 2>&1", &out), status) << args;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_EQ(out.rfind("ostlerd: ", 0), 0u) << out;
  }
}

// FIFOs, a device and a folder named like transcripts are passed over and
// counted in the feed; none of them holds up the reading or the shutdown.
TEST(OstlerdTest, PassesOverWhatItCannotReadAndStopsAtOnce) {
  TempDir dir;
  const fs::path root = dir.path() / "projects";
  const int64_t unreadable = testing::makeHostileTree(root);
  const fs::path feedPath = dir.path() / "feed.json";
  const fs::path log = dir.path() / "log";
  RunningDaemon daemon({"--root", root.string(), "--feed", feedPath.string(), "--state",
                        (dir.path() / "state" / "engine.json").string(), "--interval", "0.2"},
                       log);
  ASSERT_TRUE(daemon.started());
  auto feed = waitForFeed(feedPath, Seconds(60), [](const Feed&) { return true; });
  ASSERT_TRUE(feed) << testing::readFile(log);
  EXPECT_EQ(feed->diagnostics.unreadable_files, unreadable);
  EXPECT_GT(feed->today.turns + static_cast<int64_t>(feed->sessions_all.size()), 0) << "the good files were read";
  EXPECT_EQ(daemon.terminate(Seconds(1)), 0) << testing::readFile(log);
  const std::string said = testing::readFile(log);
  EXPECT_NE(said.find("ostlerd: " + std::to_string(unreadable) + " files could not be read (first: " +
                      (root / "-home-ana-code-infra" / "d.jsonl").string() + ": "),
            std::string::npos)
      << said;
}

// A feed that cannot be written is said when it starts failing and when it
// is written again, not at every tick between.
TEST(OstlerdTest, AFeedFolderThatGoesAndComesBackIsSaidOnceEachWay) {
  TempDir dir;
  const fs::path root = dir.path() / "projects";
  fs::copy(testing::sourceDir() / "samples" / "projects", root, fs::copy_options::recursive);
  const fs::path out = dir.path() / "out";
  fs::create_directories(out);
  const fs::path feedPath = out / "feed.json";
  const fs::path log = dir.path() / "log";
  RunningDaemon daemon({"--root", root.string(), "--feed", feedPath.string(), "--state",
                        (dir.path() / "state" / "engine.json").string(), "--interval", "0.1"},
                       log);
  ASSERT_TRUE(daemon.started());
  ASSERT_TRUE(waitForFeed(feedPath, Seconds(60), [](const Feed&) { return true; })) << testing::readFile(log);

  fs::remove_all(out);
  const auto said = [&](const std::string& words) {
    const std::string text = testing::readFile(log);
    size_t n = 0;
    for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1)) ++n;
    return n;
  };
  const auto waitToSay = [&](const std::string& words) {
    for (int i = 0; i < 500 && said(words) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return said(words) > 0;
  };
  ASSERT_TRUE(waitToSay("; trying again")) << testing::readFile(log);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // five more ticks that fail
  fs::create_directories(out);
  ASSERT_TRUE(waitForFeed(feedPath, Seconds(10), [](const Feed&) { return true; })) << testing::readFile(log);
  ASSERT_TRUE(waitToSay("ostlerd: the feed is written again\n")) << testing::readFile(log);
  EXPECT_EQ(said("; trying again"), 1u) << testing::readFile(log);
  EXPECT_EQ(daemon.terminate(Seconds(10)), 0) << testing::readFile(log);
}

}  // namespace
}  // namespace ostler
