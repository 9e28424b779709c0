#include "meter/session_discovery.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>

namespace ostler {
namespace fs = std::filesystem;

namespace {

bool endsWith(const std::string& s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string joinPath(const std::string& dir, const std::string& name) {
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

// Names in `dir`, sorted; nothing when it cannot be listed.
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

std::vector<std::string> findJSONLFilesRecursively(const std::string& path) {
  std::vector<std::string> out;
  std::error_code ec;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec);
  if (ec) return out;
  for (fs::recursive_directory_iterator end; it != end; it.increment(ec)) {
    if (ec) break;
    std::string relative = it->path().lexically_relative(path).string();
    if (endsWith(relative, ".jsonl")) out.push_back(joinPath(path, relative));
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<SessionGroup> discoverSessionGroups(const std::string& root) {
  std::map<std::string, SessionGroup> groups;  // key: project path, "::", stem
  auto rootNames = listSorted(root);
  if (!rootNames) return {};
  for (const auto& projectName : *rootNames) {
    std::string projectDir = joinPath(root, projectName);
    if (!isDirectory(projectDir)) continue;
    auto names = listSorted(projectDir);
    if (!names) continue;
    auto groupFor = [&](const std::string& stem) -> SessionGroup& {
      auto [it, inserted] = groups.try_emplace(projectDir + "::" + stem);
      if (inserted) {
        it->second.sessionId = stem;
        it->second.projectDirPath = projectDir;
      }
      return it->second;
    };
    for (const auto& name : *names) {
      if (!endsWith(name, ".jsonl")) continue;
      groupFor(name.substr(0, name.size() - 6)).mainFile = joinPath(projectDir, name);
    }
    for (const auto& name : *names) {
      std::string dir = joinPath(projectDir, name);
      std::string subagents = joinPath(dir, "subagents");
      if (!isDirectory(dir) || !isDirectory(subagents)) continue;
      auto files = findJSONLFilesRecursively(subagents);
      auto& group = groupFor(name);
      group.subagentFiles.insert(group.subagentFiles.end(), files.begin(), files.end());
    }
  }
  std::vector<SessionGroup> out;
  out.reserve(groups.size());
  for (auto& [key, group] : groups) out.push_back(std::move(group));
  // Same-id groups keep the name order of their project directories.
  std::stable_sort(out.begin(), out.end(), [](const SessionGroup& a, const SessionGroup& b) {
    if (a.sessionId != b.sessionId) return a.sessionId < b.sessionId;
    return a.projectDirPath < b.projectDirPath;
  });
  return out;
}

int64_t countFiles(const std::vector<SessionGroup>& groups) {
  int64_t n = 0;
  for (const auto& g : groups) n += (g.mainFile ? 1 : 0) + static_cast<int64_t>(g.subagentFiles.size());
  return n;
}

}  // namespace ostler
