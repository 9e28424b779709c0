// The file system of a POSIX machine.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/file_system.h"

namespace ostler {
namespace {

Error systemError(std::string_view what, const std::string& path, int error = errno) {
  return fileError(what, path, std::strerror(error));
}

FileKind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return FileKind::kRegular;
  if (S_ISDIR(mode)) return FileKind::kDirectory;
  return FileKind::kOther;
}

FileInfo infoOf(const struct stat& st) {
  return {kindOf(st.st_mode),
          static_cast<uint64_t>(std::max<off_t>(st.st_size, 0)),
          static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec,
          static_cast<uint64_t>(st.st_dev),
          static_cast<uint64_t>(st.st_ino),
          st.st_uid == ::geteuid()};
}

class SystemReadableFile final : public ReadableFile {
 public:
  SystemReadableFile(int fd, uint64_t size, std::string path) : fd_(fd), size_(size), path_(std::move(path)) {}
  ~SystemReadableFile() override { ::close(fd_); }  // a failure to close loses nothing read
  SystemReadableFile(const SystemReadableFile&) = delete;
  SystemReadableFile& operator=(const SystemReadableFile&) = delete;

  Result<size_t> readAt(uint64_t offset, char* into, size_t n) override {
    for (;;) {
      const ssize_t got = ::pread(fd_, into, n, static_cast<off_t>(offset));
      if (got >= 0) return static_cast<size_t>(got);
      if (errno != EINTR) return systemError("cannot read", path_);
    }
  }
  uint64_t sizeWhenOpened() const override { return size_; }

 private:
  int fd_;
  uint64_t size_;
  std::string path_;
};

// The bytes go to a temporary file in the target's folder, renamed over the
// target. They are not forced to disk first: what is written this way is
// rewritten every second (the feed) or is a cache that may be lost (the
// engine's state), a flush of megabytes costs a tenth of a second on an
// ordinary disk, and a machine that crashes at worst leaves a file that
// fails to decode, which every reader takes as absent.
class SystemFileReplacement final : public FileReplacement {
 public:
  SystemFileReplacement(int fd, std::string temp, std::string path)
      : fd_(fd), temp_(std::move(temp)), path_(std::move(path)) {}
  ~SystemFileReplacement() override { discard(); }
  SystemFileReplacement(const SystemFileReplacement&) = delete;
  SystemFileReplacement& operator=(const SystemFileReplacement&) = delete;

  Status append(std::string_view bytes) override {
    if (!failure_.ok()) return failure_;
    if (fd_ < 0) return Error{"already renamed over " + path_};
    while (!bytes.empty()) {
      const ssize_t n = ::write(fd_, bytes.data(), bytes.size());
      if (n < 0) {
        if (errno == EINTR) continue;
        failure_ = systemError("cannot write", temp_);
        return failure_;
      }
      bytes.remove_prefix(static_cast<size_t>(n));
      written_ += static_cast<uint64_t>(n);
    }
    return {};
  }

  Result<uint64_t> commit() override {
    if (fd_ < 0) return Error{"already renamed over " + path_};
    // The descriptor is released even when closing reports an error.
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    if (failure_.ok() && !closed) failure_ = systemError("cannot close", temp_);
    if (failure_.ok() && ::rename(temp_.c_str(), path_.c_str()) != 0) failure_ = systemError("cannot rename over", path_);
    if (!failure_.ok()) {
      discard();
      return failure_.error();
    }
    temp_.clear();  // renamed: nothing left to remove
    return written_;
  }

 private:
  void discard() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    if (!temp_.empty()) ::unlink(temp_.c_str());
    temp_.clear();
  }

  int fd_;
  std::string temp_;  // the temporary file while it exists
  std::string path_;
  uint64_t written_ = 0;
  Status failure_;
};

class SystemFileSystem final : public FileSystem {
 public:
  Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) override {
    int fd;
    do {
      fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return systemError("cannot open", path);
    struct stat st;
    if (::fstat(fd, &st) != 0) {
      const int error = errno;
      ::close(fd);
      return systemError("cannot read", path, error);
    }
    if (!S_ISREG(st.st_mode)) {
      ::close(fd);
      return fileError("cannot read", path, "not a regular file");
    }
    return std::unique_ptr<ReadableFile>(
        std::make_unique<SystemReadableFile>(fd, static_cast<uint64_t>(std::max<off_t>(st.st_size, 0)), path));
  }

  Result<FileInfo> stat(const std::string& path) override {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return systemError("cannot read", path);
    return infoOf(st);
  }

  Result<std::vector<DirectoryEntry>> list(const std::string& dir) override {
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return systemError("cannot list", dir);
    std::vector<DirectoryEntry> entries;
    // The listing's own file types save a look at each entry; a link or an
    // entry of unknown type is looked at.
    while (const dirent* e = ::readdir(d)) {
      std::string_view name = e->d_name;
      if (name == "." || name == "..") continue;
      DirectoryEntry entry{std::string(name), e->d_type == DT_DIR, e->d_type == DT_LNK};
      if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
        const std::string path = joinPath(dir, name);
        struct stat st;
        if (e->d_type == DT_UNKNOWN && ::lstat(path.c_str(), &st) == 0) entry.isLink = S_ISLNK(st.st_mode);
        entry.isDirectory = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
      }
      entries.push_back(std::move(entry));
    }
    ::closedir(d);
    return entries;
  }

  Result<std::unique_ptr<FileReplacement>> replace(const std::string& path, uint32_t mode) override {
    std::string temp = path + ".tmp-XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) return systemError("cannot create a temporary file for", path);
    if (mode != 0600 && ::fchmod(fd, static_cast<mode_t>(mode)) != 0) {
      const int error = errno;
      ::close(fd);
      ::unlink(temp.c_str());
      return systemError("cannot set the permissions of", temp, error);
    }
    return std::unique_ptr<FileReplacement>(std::make_unique<SystemFileReplacement>(fd, std::move(temp), path));
  }

  Status makeDirectories(const std::string& path, uint32_t mode) override {
    // Each folder from the top down, so that every missing one gets `mode`.
    for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
      const std::string prefix = path.substr(0, at);
      if (!prefix.empty() && ::mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST)
        return systemError("cannot create", prefix);
      if (at == std::string::npos) break;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return fileError("cannot create", path, "not a folder");
    return {};
  }

  Status remove(const std::string& path) override {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) return {};
    const int unlinkError = errno;
    // Linux says EISDIR of a folder, other systems EPERM; rmdir settles it,
    // and its reason (a folder not empty, say) is the one worth giving.
    if (unlinkError != EISDIR && unlinkError != EPERM) return systemError("cannot remove", path, unlinkError);
    if (::rmdir(path.c_str()) == 0 || errno == ENOENT) return {};
    return systemError("cannot remove", path, errno == ENOTDIR ? unlinkError : errno);
  }
};

}  // namespace

FileSystem& systemFileSystem() {
  static SystemFileSystem fs;
  return fs;
}

Status makePrivateDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return systemError("cannot create", path);
  // Looked at through the folder itself, so that what is judged is what is
  // used, and a link is not followed.
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ELOOP || errno == ENOTDIR) return fileError("refusing", path, "not a folder of its own");
    return systemError("cannot open", path);
  }
  struct stat st;
  const int rc = ::fstat(fd, &st);
  const int error = errno;
  ::close(fd);
  if (rc != 0) return systemError("cannot read", path, error);
  if (st.st_uid != ::geteuid()) return fileError("refusing", path, "it belongs to another user");
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return fileError("refusing", path, "others may write to it");
  return {};
}

}  // namespace ostler
