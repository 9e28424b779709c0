#include "daemon/session_discovery.h"

#include <chrono>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

#include "meter/session_discovery.h"

namespace ostler::SessionDiscovery {
namespace fs = std::filesystem;

namespace {

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

std::string joinPath(const std::string& dir, const std::string& name) {
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

// Names in `dir`, sorted by bytes; nothing when it cannot be listed.
std::optional<std::vector<std::string>> listSorted(const std::string& dir) {
  std::error_code ec;
  fs::directory_iterator it(dir, ec);
  if (ec) return std::nullopt;
  std::vector<std::string> names;
  for (fs::directory_iterator end; it != end; it.increment(ec)) {
    if (ec) break;
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool isDirectory(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

}  // namespace

std::vector<DaemonFile> discoverFiles(const std::string& root) {
  std::vector<DaemonFile> files;
  auto projects = listSorted(root);
  if (!projects) return files;
  for (const auto& projectName : *projects) {
    std::string projectDir = joinPath(root, projectName);
    if (!isDirectory(projectDir)) continue;
    auto names = listSorted(projectDir);
    if (!names) continue;
    for (const auto& name : *names) {
      if (!endsWith(name, ".jsonl")) continue;
      files.push_back({joinPath(projectDir, name), name.substr(0, name.size() - 6), projectDir, false});
    }
    for (const auto& name : *names) {
      std::string sessionDir = joinPath(projectDir, name);
      if (!isDirectory(sessionDir)) continue;
      std::string subagents = joinPath(sessionDir, "subagents");
      if (!isDirectory(subagents)) continue;
      for (auto& path : findJSONLFilesRecursively(subagents))
        files.push_back({std::move(path), name, projectDir, true});
    }
  }
  return files;
}

std::vector<std::string> activeDispatchFiles(const std::string& projectDirPath, const std::string& sessionId,
                                             InstantMs now, double withinSeconds) {
  // Built as discovery builds it, so the paths match the engine's keys.
  std::string subagents = joinPath(joinPath(projectDirPath, sessionId), "subagents");
  std::vector<std::string> active;
  if (!isDirectory(subagents)) return active;
  const double nowSeconds = static_cast<double>(now) / 1000.0;
  for (auto& path : findJSONLFilesRecursively(subagents)) {
    std::error_code ec;
    fs::file_time_type written = fs::last_write_time(path, ec);
    if (ec) continue;
    const double modified =
        std::chrono::duration<double>(std::chrono::file_clock::to_sys(written).time_since_epoch()).count();
    const double age = nowSeconds - modified;
    if (age <= withinSeconds && age >= -1.0) active.push_back(std::move(path));
  }
  return active;
}

int64_t activeDispatchCount(const std::string& projectDirPath, const std::string& sessionId, InstantMs now,
                            double withinSeconds) {
  return static_cast<int64_t>(activeDispatchFiles(projectDirPath, sessionId, now, withinSeconds).size());
}

}  // namespace ostler::SessionDiscovery
