#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <unordered_map>

#include "platform/file_sizes.h"
#include "platform/stat_file_sizes.h"

namespace ostler {
namespace {

// Remembers the sizes of files folder by folder, each folder watched with
// inotify: any report about a name forgets that name's size, so that the
// next poll asks for it again. A folder that cannot be watched is asked
// every time; an overflowed queue, and every `refreshPolls`-th poll, forget
// everything. A watch follows a folder's inode, so a folder removed and made
// again under the same name is noticed by its inode and watched afresh.
class InotifyFileSizes final : public FileSizeSource {
 public:
  explicit InotifyFileSizes(int refreshPolls)
      : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), refreshPolls_(refreshPolls) {}
  InotifyFileSizes(const InotifyFileSizes&) = delete;
  InotifyFileSizes& operator=(const InotifyFileSizes&) = delete;
  ~InotifyFileSizes() override {
    if (fd_ >= 0) ::close(fd_);
  }

  void beginPoll() override {
    if (++polls_ % refreshPolls_ == 0) forgetAll();
    drainEvents();
    dropReplacedFolders();
  }

  std::optional<int64_t> sizeOf(const std::string& path) override {
    const size_t slash = path.rfind('/');
    if (fd_ < 0 || slash == std::string::npos) return stat_.sizeOf(path);
    Folder* folder = watch(path.substr(0, slash));
    if (folder == nullptr) return stat_.sizeOf(path);
    const std::string name = path.substr(slash + 1);
    if (auto known = folder->sizes.find(name); known != folder->sizes.end()) return known->second;
    std::optional<int64_t> size = stat_.sizeOf(path);
    if (size) folder->sizes.emplace(name, *size);
    return size;
  }

  void endPoll() override { stat_.endPoll(); }

 private:
  struct Folder {
    int wd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::unordered_map<std::string, int64_t> sizes;
  };

  static constexpr uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                      IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

  // The folder's record, watching it first if need be, so that no change
  // after its first size is missed; nothing when it cannot be watched.
  Folder* watch(const std::string& dir) {
    if (auto it = folders_.find(dir); it != folders_.end()) return it->second.wd >= 0 ? &it->second : nullptr;
    Folder folder;
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) {
      folder.wd = ::inotify_add_watch(fd_, dir.c_str(), kEvents);
      folder.device = st.st_dev;
      folder.inode = st.st_ino;
    }
    auto [it, inserted] = folders_.emplace(dir, std::move(folder));
    if (it->second.wd < 0) return nullptr;
    byWatch_[it->second.wd] = dir;
    return &it->second;
  }

  // A removed folder's watch lives on until its inode is let go, so a folder
  // made again in its place would go unwatched: compare inodes each poll.
  void dropReplacedFolders() {
    for (auto it = folders_.begin(); it != folders_.end();) {
      struct stat st;
      const bool same = ::stat(it->first.c_str(), &st) == 0 && st.st_dev == it->second.device &&
                        st.st_ino == it->second.inode;
      if (same) {
        ++it;
        continue;
      }
      if (it->second.wd >= 0) {
        ::inotify_rm_watch(fd_, it->second.wd);
        byWatch_.erase(it->second.wd);
      }
      it = folders_.erase(it);
    }
  }

  void forgetAll() {
    for (auto& [dir, folder] : folders_) folder.sizes.clear();
  }

  void drainEvents() {
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
      ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;  // EAGAIN: nothing more reported
      for (char* p = buffer; p < buffer + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        p += sizeof(inotify_event) + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
          forgetAll();
          continue;
        }
        auto owner = byWatch_.find(event->wd);
        if (owner == byWatch_.end()) continue;
        auto folder = folders_.find(owner->second);
        if (folder == folders_.end()) continue;
        if (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
          // The folder is gone or moved: watch it afresh when it is met again.
          if (!(event->mask & IN_IGNORED)) ::inotify_rm_watch(fd_, event->wd);
          folders_.erase(folder);
          byWatch_.erase(owner);
          continue;
        }
        if (event->len > 0)
          folder->second.sizes.erase(std::string(event->name));
        else
          folder->second.sizes.clear();
      }
    }
  }

  int fd_;
  int refreshPolls_;
  int64_t polls_ = 0;
  StatFileSizes stat_;
  std::unordered_map<std::string, Folder> folders_;
  std::unordered_map<int, std::string> byWatch_;
};

}  // namespace

std::unique_ptr<FileSizeSource> makeWatchingFileSizes(int refreshPolls) {
  return std::make_unique<InotifyFileSizes>(refreshPolls < 1 ? 1 : refreshPolls);
}

}  // namespace ostler
