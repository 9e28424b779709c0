// The machine's file system behind the seam: what it refuses to read, and
// replacements that show whole or not at all.
#include "platform/file_system.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST(SystemFileSystemTest, ReadsRegularFilesOnlyAndNeverWaitsToOpen) {
  TempDir dir;
  FileSystem& fs = systemFileSystem();
  writeFile(dir.path() / "a.jsonl", "abcdef");
  auto file = fs.openForReading((dir.path() / "a.jsonl").string());
  ASSERT_TRUE(file.ok());
  char bytes[8] = {};
  EXPECT_EQ(file.value()->readAt(2, bytes, 3).value(), 3u);
  EXPECT_EQ(std::string(bytes, 3), "cde");
  EXPECT_EQ(file.value()->readAt(6, bytes, 3).value(), 0u);
  EXPECT_EQ(file.value()->sizeWhenOpened(), 6u);

  // A FIFO would block an ordinary open until a writer came; a link to a
  // device would read without end. Neither is read.
  const std::string fifo = (dir.path() / "fifo.jsonl").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", dir.path() / "zero.jsonl");
  for (const std::string& path : {fifo, (dir.path() / "zero.jsonl").string(), dir.str()}) {
    auto refused = fs.openForReading(path);
    ASSERT_FALSE(refused.ok()) << path;
    EXPECT_NE(refused.error().message.find("not a regular file"), std::string::npos) << refused.error().message;
  }
  EXPECT_EQ(fs.stat(fifo).value().kind, FileKind::kOther);
  auto missing = fs.openForReading((dir.path() / "missing").string());
  ASSERT_FALSE(missing.ok());
  EXPECT_NE(missing.error().message.find("No such file"), std::string::npos);

  const auto listed = listSorted(fs, dir.str());
  ASSERT_TRUE(listed.ok());
  ASSERT_EQ(listed.value().size(), 3u);
  EXPECT_EQ(listed.value()[2].name, "zero.jsonl");
  EXPECT_TRUE(listed.value()[2].isLink);
  EXPECT_FALSE(listed.value()[2].isDirectory);
}

TEST(SystemFileSystemTest, AReplacementShowsOnlyOnCommitAndAFailureLeavesTheFileAsItWas) {
  TempDir dir;
  FileSystem& fs = systemFileSystem();
  const std::string path = (dir.path() / "state.json").string();
  writeFile(path, "old");
  {
    auto file = fs.replace(path, 0600).value();
    EXPECT_TRUE(file->append("new ").ok());
    EXPECT_TRUE(file->append("text").ok());
    EXPECT_EQ(readFile(path), "old");  // nothing shows before the commit
    auto committed = file->commit();
    ASSERT_TRUE(committed.ok()) << committed.error().message;
    EXPECT_EQ(committed.value(), 8u);
    EXPECT_FALSE(file->commit().ok());  // once only
  }
  EXPECT_EQ(readFile(path), "new text");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(entries(dir.path()), 1u);

  // Dropped without a commit: no trace.
  (void)fs.replace(path, 0600).value()->append("abandoned");
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
    auto file = fs.replace(path, 0600).value();
    EXPECT_TRUE(file->append("0123456789").ok());
    EXPECT_FALSE(file->append("0123456789").ok());
    EXPECT_FALSE(file->append("x").ok());
    EXPECT_FALSE(file->commit().ok());
  }
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(readFile(path), "new text");
  EXPECT_EQ(entries(dir.path()), 1u);

  // A target that cannot be replaced (a folder with something in it), and
  // one in a folder that does not exist.
  const auto folder = dir.path() / "folder";
  writeFile(folder / "inside", "x");
  EXPECT_FALSE(writeWholeFile(fs, folder.string(), "bytes").ok());
  EXPECT_FALSE(writeWholeFile(fs, (dir.path() / "nope" / "f").string(), "bytes").ok());
  EXPECT_EQ(readFile(folder / "inside"), "x");
  EXPECT_EQ(entries(dir.path()), 2u);

  // Folders are made all the way down, with the mode asked for.
  const std::string deep = (dir.path() / "x" / "y" / "z").string();
  ASSERT_TRUE(fs.makeDirectories(deep, 0700).ok());
  ASSERT_EQ(::stat((dir.path() / "x").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_FALSE(fs.makeDirectories(path, 0700).ok());  // a file stands there
}

// In a folder every user writes to, a folder of ours may have been made
// first by someone else: it is used only when it is ours and shut to others.
TEST(PrivateDirectoryTest, IsMadeShutAndRefusedWhenOthersCouldReachIn) {
  TempDir dir;
  const auto mode = [](const std::filesystem::path& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 ? st.st_mode & 0777 : 01000u;
  };
  const auto made = dir.path() / "made";
  ASSERT_TRUE(makePrivateDirectory(made.string()).ok());
  EXPECT_EQ(mode(made), 0700u);
  EXPECT_TRUE(makePrivateDirectory(made.string()).ok()) << "ours already";

  const auto refusal = [](const std::filesystem::path& p) {
    const Status s = makePrivateDirectory(p.string());
    return s.ok() ? std::string("accepted") : s.error().message;
  };
  const auto open = dir.path() / "open";
  std::filesystem::create_directory(open);
  ::chmod(open.c_str(), 0777);
  EXPECT_EQ(refusal(open), "refusing " + open.string() + ": others may write to it");
  EXPECT_EQ(mode(open), 0777u) << "left as it was found";
  const auto link = dir.path() / "link";
  std::filesystem::create_directory_symlink(made, link);
  EXPECT_EQ(refusal(link), "refusing " + link.string() + ": not a folder of its own");
  writeFile(dir.path() / "file", "");
  EXPECT_EQ(refusal(dir.path() / "file"), "refusing " + (dir.path() / "file").string() + ": not a folder of its own");
  EXPECT_NE(refusal(dir.path() / "no" / "parent"), "accepted");
  if (::geteuid() == 0) {
    const auto theirs = dir.path() / "theirs";
    std::filesystem::create_directory(theirs);
    ::chmod(theirs.c_str(), 0700);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    EXPECT_EQ(refusal(theirs), "refusing " + theirs.string() + ": it belongs to another user");
  }
}

TEST(SystemFileSystemTest, RemovesATreeWithoutFollowingItsLinksAndTellsWhoOwnsAFolder) {
  TempDir dir;
  FileSystem& fs = systemFileSystem();
  const auto outside = dir.path() / "outside";
  writeFile(outside / "keep.txt", "kept");
  const auto tree = dir.path() / "tree";
  writeFile(tree / "a.json", "1");
  writeFile(tree / "deep" / "er" / "b.json", "2");
  std::filesystem::create_directory_symlink(outside, tree / "deep" / "link");
  std::filesystem::create_directory(tree / "empty");

  auto info = fs.stat(tree.string());
  ASSERT_TRUE(info.ok());
  EXPECT_TRUE(info.value().ownedByUser);

  EXPECT_TRUE(fs.remove((tree / "empty").string()).ok());  // an empty folder goes as a file does
  EXPECT_FALSE(std::filesystem::exists(tree / "empty"));
  EXPECT_FALSE(fs.remove(tree.string()).ok());  // a full one does not
  EXPECT_TRUE(removeTree(fs, tree.string()).ok());
  EXPECT_FALSE(std::filesystem::exists(tree));
  EXPECT_EQ(readFile(outside / "keep.txt"), "kept");
  EXPECT_TRUE(removeTree(fs, tree.string()).ok()) << "already gone is no error";
}

}  // namespace
}  // namespace ostler
