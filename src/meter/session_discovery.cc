#include "meter/session_discovery.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "platform/directory_listing.h"

namespace ostler {

namespace {

bool endsWith(const std::string& s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

namespace {

// Adds to `out` every file below `dir` named "*.jsonl", as `dir` + "/" + its
// path below. Links are listed but never entered, so a link cannot lead the
// walk in a circle; a folder that cannot be opened is passed over.
void collectJSONLFiles(const std::string& dir, std::vector<std::string>& out) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> folders;
  while (const dirent* e = ::readdir(d)) {
    std::string_view name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string path = joinPath(dir, name);
    bool isFolder = e->d_type == DT_DIR;
    if (e->d_type == DT_UNKNOWN) {
      struct stat st;
      isFolder = ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    if (isFolder)
      folders.push_back(std::move(path));
    else if (name.ends_with(".jsonl"))
      out.push_back(std::move(path));
  }
  ::closedir(d);
  for (const auto& folder : folders) collectJSONLFiles(folder, out);
}

}  // namespace

std::vector<std::string> findJSONLFilesRecursively(const std::string& path) {
  // Plain directory reads: the walk runs for every chat with subagents, on
  // every pass of the daemon.
  std::vector<std::string> out;
  collectJSONLFiles(path, out);
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
