#include "support/fake_file_system.h"

#include <algorithm>
#include <cstring>

namespace ostler::testing {
namespace {

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string trimmed(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

class FakeFileSystem::File final : public ReadableFile {
 public:
  File(FakeFileSystem& fs, std::string path, std::shared_ptr<std::string> bytes, uint64_t size,
       std::optional<uint64_t> failFrom)
      : fs_(fs), path_(std::move(path)), bytes_(std::move(bytes)), size_(size), failFrom_(failFrom) {}

  Result<size_t> readAt(uint64_t offset, char* into, size_t n) override {
    if (fs_.onRead_) fs_.onRead_(path_);
    std::lock_guard lock(fs_.mutex_);
    if (failFrom_ && offset + n > *failFrom_) return fileError("cannot read", path_, "input/output error");
    if (offset >= bytes_->size()) return size_t{0};
    const size_t got = std::min(n, bytes_->size() - static_cast<size_t>(offset));
    std::memcpy(into, bytes_->data() + offset, got);
    return got;
  }
  uint64_t sizeWhenOpened() const override { return size_; }

 private:
  FakeFileSystem& fs_;
  std::string path_;
  std::shared_ptr<std::string> bytes_;
  uint64_t size_;
  std::optional<uint64_t> failFrom_;
};

class FakeFileSystem::Replacement final : public FileReplacement {
 public:
  Replacement(FakeFileSystem& fs, std::string path) : fs_(fs), path_(std::move(path)) {}

  Status append(std::string_view bytes) override {
    if (committed_) return Error{"already renamed over " + path_};
    pending_.append(bytes);
    return {};
  }
  Result<uint64_t> commit() override {
    if (committed_) return Error{"already renamed over " + path_};
    std::lock_guard lock(fs_.mutex_);
    if (fs_.failingCommits_.contains(path_)) return Error{"cannot rename over " + path_ + ": no space left on device"};
    if (auto it = fs_.nodes_.find(parentOf(path_)); it == fs_.nodes_.end() || it->second.kind != FileKind::kDirectory)
      return Error{"cannot create a temporary file for " + path_ + ": no such file or directory"};
    committed_ = true;
    Node& node = fs_.touch(path_, FileKind::kRegular);
    node.bytes = std::make_shared<std::string>(std::move(pending_));  // a new file, as a rename makes
    node.inode = fs_.nextInode_++;
    return static_cast<uint64_t>(node.bytes->size());
  }

 private:
  FakeFileSystem& fs_;
  std::string path_;
  std::string pending_;
  bool committed_ = false;
};

void FakeFileSystem::makeParents(const std::string& path) {
  for (std::string dir = parentOf(path);; dir = parentOf(dir)) {
    Node& node = nodes_[dir];
    node.kind = FileKind::kDirectory;
    if (dir == "/") break;
  }
}

FakeFileSystem::Node& FakeFileSystem::touch(const std::string& path, FileKind kind) {
  makeParents(path);
  auto [it, made] = nodes_.try_emplace(path);
  if (made) it->second.inode = nextInode_++;
  it->second.kind = kind;
  clockNs_ += 1'000'000;
  it->second.modifiedNs = clockNs_;
  return it->second;
}

void FakeFileSystem::put(const std::string& path, std::string bytes) {
  std::lock_guard lock(mutex_);
  Node& node = touch(path, FileKind::kRegular);
  *node.bytes = std::move(bytes);
}

void FakeFileSystem::append(const std::string& path, std::string_view bytes) {
  std::lock_guard lock(mutex_);
  touch(path, FileKind::kRegular).bytes->append(bytes);
}

void FakeFileSystem::makeFolder(const std::string& path) {
  std::lock_guard lock(mutex_);
  touch(trimmed(path), FileKind::kDirectory);
}

std::optional<std::string> FakeFileSystem::bytes(const std::string& path) const {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(path);
  if (it == nodes_.end() || it->second.kind != FileKind::kRegular) return std::nullopt;
  return *it->second.bytes;
}

void FakeFileSystem::refuseOpening(const std::string& path, std::string reason) {
  std::lock_guard lock(mutex_);
  touch(path, FileKind::kRegular).refusal = std::move(reason);
}

void FakeFileSystem::failReadsFrom(const std::string& path, uint64_t offset) {
  std::lock_guard lock(mutex_);
  touch(path, FileKind::kRegular).failReadsFrom = offset;
}

void FakeFileSystem::putSpecial(const std::string& path) {
  std::lock_guard lock(mutex_);
  touch(path, FileKind::kOther);
}

void FakeFileSystem::giveToAnotherUser(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (auto it = nodes_.find(trimmed(path)); it != nodes_.end()) it->second.foreign = true;
}

void FakeFileSystem::failCommitsTo(const std::string& path) {
  std::lock_guard lock(mutex_);
  failingCommits_.insert(path);
}

void FakeFileSystem::onRead(std::function<void(const std::string& path)> hook) { onRead_ = std::move(hook); }

Result<std::unique_ptr<ReadableFile>> FakeFileSystem::openForReading(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(path);
  if (it == nodes_.end()) return fileError("cannot open", path, "no such file or directory");
  const Node& node = it->second;
  if (node.refusal) return fileError("cannot open", path, *node.refusal);
  if (node.kind != FileKind::kRegular) return fileError("cannot read", path, "not a regular file");
  return std::unique_ptr<ReadableFile>(
      std::make_unique<File>(*this, path, node.bytes, node.bytes->size(), node.failReadsFrom));
}

Result<FileInfo> FakeFileSystem::stat(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(trimmed(path));
  if (it == nodes_.end()) return fileError("cannot read", path, "no such file or directory");
  const Node& node = it->second;
  FileInfo info;
  info.kind = node.kind;
  info.size = node.kind == FileKind::kRegular ? node.bytes->size() : 0;
  info.modifiedNs = node.modifiedNs;
  info.device = 1;
  info.inode = node.inode;
  info.ownedByUser = !node.foreign;
  return info;
}

Result<std::vector<DirectoryEntry>> FakeFileSystem::list(const std::string& dir) {
  std::lock_guard lock(mutex_);
  const std::string folder = trimmed(dir);
  auto it = nodes_.find(folder);
  if (it == nodes_.end() || it->second.kind != FileKind::kDirectory)
    return fileError("cannot list", dir, "not a folder");
  const std::string prefix = folder == "/" ? "/" : folder + "/";
  std::vector<DirectoryEntry> entries;
  for (auto at = nodes_.lower_bound(prefix); at != nodes_.end() && at->first.starts_with(prefix); ++at) {
    const std::string_view rest = std::string_view(at->first).substr(prefix.size());
    if (rest.empty() || rest.find('/') != std::string_view::npos) continue;
    entries.push_back({std::string(rest), at->second.kind == FileKind::kDirectory, false});
  }
  return entries;
}

Result<std::unique_ptr<FileReplacement>> FakeFileSystem::replace(const std::string& path, uint32_t) {
  return std::unique_ptr<FileReplacement>(std::make_unique<Replacement>(*this, path));
}

Status FakeFileSystem::makeDirectories(const std::string& path, uint32_t) {
  std::lock_guard lock(mutex_);
  // As mkdir does, a file anywhere on the way stops it.
  for (std::string dir = trimmed(path);; dir = parentOf(dir)) {
    auto it = nodes_.find(dir);
    if (it != nodes_.end() && it->second.kind != FileKind::kDirectory)
      return Error{"cannot create " + dir + ": not a folder"};
    if (dir == "/") break;
  }
  touch(trimmed(path), FileKind::kDirectory);
  return {};
}

Status FakeFileSystem::remove(const std::string& path) {
  std::lock_guard lock(mutex_);
  const std::string target = trimmed(path);
  auto it = nodes_.find(target);
  if (it == nodes_.end()) return {};
  if (it->second.kind == FileKind::kDirectory) {
    const std::string prefix = target == "/" ? "/" : target + "/";
    if (auto child = nodes_.lower_bound(prefix); child != nodes_.end() && child->first.starts_with(prefix))
      return Error{"cannot remove " + path + ": directory not empty"};
  }
  nodes_.erase(it);
  return {};
}

}  // namespace ostler::testing
