#include "daemon/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace ostler {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;

size_t entries(const std::filesystem::path& dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

TEST(AtomicFileTest, PiecesReplaceTheFileOnlyOnCommitAndAFailureLeavesItAsItWas) {
  TempDir dir;
  const std::string path = (dir.path() / "state.json").string();
  writeFile(path, "old");
  {
    AtomicFile::Replacement file(path);
    EXPECT_TRUE(file.append("new "));
    EXPECT_TRUE(file.append("text"));
    EXPECT_EQ(readFile(path), "old");  // nothing shows before the commit
    auto committed = file.commit();
    ASSERT_TRUE(committed.ok()) << committed.error().message;
    EXPECT_EQ(committed.value(), 8);
    EXPECT_FALSE(file.commit().ok());  // once only
  }
  EXPECT_EQ(readFile(path), "new text");
  EXPECT_EQ(entries(dir.path()), 1u);

  // Dropped without a commit: no trace.
  {
    AtomicFile::Replacement file(path);
    EXPECT_TRUE(file.append("abandoned"));
  }
  EXPECT_EQ(readFile(path), "new text");
  EXPECT_EQ(entries(dir.path()), 1u);

  // A piece the file system refuses (here: past the size limit) fails it
  // and every piece after; the commit then reports it and cleans up.
  struct rlimit old;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = old;
  small.rlim_cur = 16;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  {
    AtomicFile::Replacement file(path);
    EXPECT_TRUE(file.append("0123456789"));
    EXPECT_FALSE(file.append("0123456789"));
    EXPECT_FALSE(file.append("x"));
    EXPECT_FALSE(file.commit().ok());
  }
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(readFile(path), "new text");
  EXPECT_EQ(entries(dir.path()), 1u);

  // A target that cannot be replaced (a folder with something in it).
  const auto folder = dir.path() / "folder";
  writeFile(folder / "inside", "x");
  EXPECT_FALSE(AtomicFile::write(folder.string(), "bytes").ok());
  EXPECT_EQ(readFile(folder / "inside"), "x");
  EXPECT_EQ(entries(dir.path()), 2u);
}

}  // namespace
}  // namespace ostler
