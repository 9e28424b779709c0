#include "platform/directory_listing.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

namespace ostler {

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string joinPath(const std::string& dir, std::string_view name) {
  std::string out = dir;
  if (out.empty() || out.back() != '/') out.push_back('/');
  out.append(name);
  return out;
}

std::optional<std::vector<DirectoryEntry>> listDirectorySorted(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return std::nullopt;
  std::vector<DirectoryEntry> entries;
  while (const dirent* e = ::readdir(d)) {
    std::string_view name = e->d_name;
    if (name == "." || name == "..") continue;
    bool isDir = e->d_type == DT_DIR;
    if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) isDir = isDirectory(joinPath(dir, name));
    entries.push_back({std::string(name), isDir});
  }
  ::closedir(d);
  std::sort(entries.begin(), entries.end());
  return entries;
}

}  // namespace ostler
