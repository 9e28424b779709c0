#include "meter/session_discovery.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>

#include "platform/directory_listing.h"

namespace ostler {
namespace fs = std::filesystem;

namespace {

bool endsWith(const std::string& s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
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
  auto projects = listDirectorySorted(root);
  if (!projects) return {};
  for (const auto& project : *projects) {
    if (!project.isDirectory) continue;
    std::string projectDir = joinPath(root, project.name);
    auto entries = listDirectorySorted(projectDir);
    if (!entries) continue;
    auto groupFor = [&](const std::string& stem) -> SessionGroup& {
      auto [it, inserted] = groups.try_emplace(projectDir + "::" + stem);
      if (inserted) {
        it->second.sessionId = stem;
        it->second.projectDirPath = projectDir;
      }
      return it->second;
    };
    for (const auto& e : *entries) {
      if (!endsWith(e.name, ".jsonl")) continue;
      groupFor(e.name.substr(0, e.name.size() - 6)).mainFile = joinPath(projectDir, e.name);
    }
    for (const auto& e : *entries) {
      if (!e.isDirectory) continue;
      std::string subagents = joinPath(joinPath(projectDir, e.name), "subagents");
      if (!isDirectory(subagents)) continue;
      auto files = findJSONLFilesRecursively(subagents);
      auto& group = groupFor(e.name);
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
