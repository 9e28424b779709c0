#include "daemon/session_discovery.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>

#include "meter/session_discovery.h"
#include "platform/directory_listing.h"

namespace ostler::SessionDiscovery {
namespace fs = std::filesystem;

namespace {

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace

std::vector<DaemonFile> discoverFiles(const std::string& root) {
  std::vector<DaemonFile> files;
  auto projects = listDirectorySorted(root);
  if (!projects) return files;
  for (const auto& project : *projects) {
    if (!project.isDirectory) continue;
    std::string projectDir = joinPath(root, project.name);
    auto entries = listDirectorySorted(projectDir);
    if (!entries) continue;
    for (const auto& e : *entries) {
      if (!endsWith(e.name, ".jsonl")) continue;
      files.push_back({joinPath(projectDir, e.name), e.name.substr(0, e.name.size() - 6), projectDir, false});
    }
    for (const auto& e : *entries) {
      if (!e.isDirectory) continue;
      std::string subagents = joinPath(joinPath(projectDir, e.name), "subagents");
      if (!isDirectory(subagents)) continue;
      for (auto& path : findJSONLFilesRecursively(subagents))
        files.push_back({std::move(path), e.name, projectDir, true});
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
