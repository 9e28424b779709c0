// The two locks that keep the model to one unit of work at a time: within
// the process in order of arrival, and between processes by a file lock
// that never stops the work.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "closeout/model/tier1_process_lock.h"
#include "closeout/model/tier1_serializer.h"
#include "platform/threads.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::TempDir;

void waitUntil(const std::function<bool()>& done) {
  while (!done()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(Tier1SerializerTest, CallersFinishInTheOrderTheyArrived) {
  Tier1Serializer serializer;
  std::mutex mutex;
  std::vector<int> order;
  serializer.acquire();  // held, so that the three queue up behind it
  std::vector<std::unique_ptr<Thread>> callers;
  for (int i = 1; i <= 3; ++i) {
    callers.push_back(std::make_unique<Thread>("caller", [&, i] {
      serializer.run([&] {
        const std::lock_guard lock(mutex);
        order.push_back(i);
      });
    }));
    waitUntil([&] { return serializer.waiting() == static_cast<uint64_t>(i); });  // parked before the next arrives
  }
  serializer.release();
  callers.clear();  // joins
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(serializer.waiting(), 0u);
}

TEST(Tier1SerializerTest, WorkThatFailsStillReleasesAndHandsItsResultOn) {
  Tier1Serializer serializer;
  EXPECT_THROW(serializer.run([]() -> int { throw std::runtime_error("model gone"); }), std::runtime_error);
  EXPECT_EQ(serializer.run([] { return 42; }), 42) << "a failed unit must not leave the serializer held";
}

// Forks a process that takes the lock at `path` with `acquire`, writes
// `marker` once it holds it, and exits.
pid_t holderInChild(const std::string& path, const std::string& marker, bool polling) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int32_t fd =
        polling ? Tier1ProcessLock::acquireAsync(path, 1'000'000) : Tier1ProcessLock::acquireBlocking(path);
    testing::writeFile(marker, "held");
    Tier1ProcessLock::release(fd);
    ::_exit(fd >= 0 ? 0 : 1);
  }
  return pid;
}

TEST(Tier1ProcessLockTest, ASecondProcessWaitsForTheFirstsRelease) {
  TempDir dir;
  const std::string path = dir.str() + "/locks/tier1.lock";
  for (const bool polling : {false, true}) {
    const int32_t fd = Tier1ProcessLock::acquireBlocking(path);
    ASSERT_GE(fd, 0);
    const std::string marker = dir.str() + (polling ? "/polling" : "/blocking");
    const pid_t child = holderInChild(path, marker, polling);
    ASSERT_GT(child, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(std::filesystem::exists(marker)) << "the child took a lock that was held";
    Tier1ProcessLock::release(fd);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(std::filesystem::exists(marker)) << "the child never got the lock after its release";
  }
  struct stat st {};
  ASSERT_EQ(::stat((dir.str() + "/locks").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(::stat(path.c_str(), &st), 0) << "the lock file stays";
  EXPECT_EQ(st.st_mode & 0777, 0644u & ~static_cast<unsigned>(::umask(::umask(0))));
}

TEST(Tier1ProcessLockTest, AFolderNotOurOwnSkipsTheLockWithoutStoppingTheWork) {
  TempDir dir;
  // A lock path under a regular file cannot be opened.
  testing::writeFile(dir.path() / "file", "");
  EXPECT_LT(Tier1ProcessLock::acquireBlocking(dir.str() + "/file/tier1.lock"), 0);
  EXPECT_LT(Tier1ProcessLock::acquireAsync(dir.str() + "/file/tier1.lock"), 0);
  Tier1ProcessLock::release(-1);  // nothing to release

  // A folder others may write to is refused, and left as found.
  const auto open = dir.path() / "open";
  std::filesystem::create_directory(open);
  ::chmod(open.c_str(), 0777);
  EXPECT_LT(Tier1ProcessLock::acquireBlocking((open / "tier1.lock").string()), 0);
  EXPECT_LT(Tier1ProcessLock::acquireAsync((open / "tier1.lock").string()), 0);
  EXPECT_FALSE(std::filesystem::exists(open / "tier1.lock"));

  if (::geteuid() == 0) {
    const auto theirs = dir.path() / "theirs";
    std::filesystem::create_directory(theirs);
    ::chmod(theirs.c_str(), 0700);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    EXPECT_LT(Tier1ProcessLock::acquireBlocking((theirs / "tier1.lock").string()), 0);
    EXPECT_FALSE(std::filesystem::exists(theirs / "tier1.lock"));
  }
}

}  // namespace
}  // namespace ostler
