#include "platform/file_system.h"

#include <algorithm>

namespace ostler {

std::string joinPath(std::string_view dir, std::string_view name) {
  std::string out(dir);
  if (out.empty() || out.back() != '/') out.push_back('/');
  out.append(name);
  return out;
}

Result<std::vector<DirectoryEntry>> listSorted(FileSystem& fs, const std::string& dir) {
  auto entries = fs.list(dir);
  if (entries) std::sort(entries.value().begin(), entries.value().end());
  return entries;
}

Status removeTree(FileSystem& fs, const std::string& path) {
  Status first;
  // The listing says whether an entry is a link; a link to a folder is
  // removed as a link, so nothing outside `path` is ever reached.
  if (auto entries = fs.list(path)) {
    for (const DirectoryEntry& entry : entries.value()) {
      const std::string child = joinPath(path, entry.name);
      Status s = entry.isDirectory && !entry.isLink ? removeTree(fs, child) : fs.remove(child);
      if (!s && first) first = s;
    }
  }
  Status s = fs.remove(path);
  if (!s && first) first = s;
  return first;
}

bool isDirectory(FileSystem& fs, const std::string& path) {
  auto info = fs.stat(path);
  return info && info.value().kind == FileKind::kDirectory;
}

Result<std::string> readWholeFile(FileSystem& fs, const std::string& path, uint64_t maxBytes, size_t padding) {
  auto opened = fs.openForReading(path);
  if (!opened) return opened.error();
  ReadableFile& file = *opened.value();
  const uint64_t size = file.sizeWhenOpened();
  if (size > maxBytes) return fileError("cannot read", path, "larger than " + std::to_string(maxBytes) + " bytes");
  std::string bytes(static_cast<size_t>(size) + padding, '\0');
  uint64_t done = 0;
  while (done < size) {
    auto n = file.readAt(done, bytes.data() + done, static_cast<size_t>(size - done));
    if (!n) return n.error();
    if (n.value() == 0) break;  // it shrank since it was opened
    done += n.value();
  }
  bytes.resize(static_cast<size_t>(done));
  bytes.resize(static_cast<size_t>(done) + padding, '\0');
  return bytes;
}

Result<uint64_t> writeWholeFile(FileSystem& fs, const std::string& path, std::string_view bytes, uint32_t mode) {
  auto replacement = fs.replace(path, mode);
  if (!replacement) return replacement.error();
  if (Status s = replacement.value()->append(bytes); !s) return s.error();
  return replacement.value()->commit();
}

}  // namespace ostler
