#include "transcript/session_discovery.h"

#include <algorithm>
#include <map>
#include <utility>

namespace ostler::SessionDiscovery {
namespace {

constexpr std::string_view kExtension = ".jsonl";

// Adds to `out` every file below `dir` named "*.jsonl". Links are listed but
// never entered, so a link cannot lead the walk in a circle.
void collectJSONLFiles(FileSystem& fs, const std::string& dir, std::vector<std::string>& out, Unreadable* unreadable) {
  auto entries = fs.list(dir);
  if (!entries) {
    if (unreadable != nullptr) unreadable->note(entries.error());
    return;
  }
  std::vector<std::string> folders;
  for (const DirectoryEntry& e : entries.value()) {
    std::string path = joinPath(dir, e.name);
    if (e.isDirectory && !e.isLink)
      folders.push_back(std::move(path));
    else if (e.name.ends_with(kExtension))
      out.push_back(std::move(path));
  }
  for (const auto& folder : folders) collectJSONLFiles(fs, folder, out, unreadable);
}

}  // namespace

std::vector<std::string> findJSONLFilesRecursively(FileSystem& fs, const std::string& path, Unreadable* unreadable) {
  std::vector<std::string> out;
  collectJSONLFiles(fs, path, out, unreadable);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<TranscriptFile> discoverFiles(FileSystem& fs, const std::string& root, Unreadable* unreadable) {
  std::vector<TranscriptFile> files;
  auto projects = listSorted(fs, root);
  if (!projects) return files;
  for (const auto& project : projects.value()) {
    if (!project.isDirectory) continue;
    const std::string projectDir = joinPath(root, project.name);
    auto entries = listSorted(fs, projectDir);
    if (!entries) {
      if (unreadable != nullptr) unreadable->note(entries.error());
      continue;
    }
    for (const auto& e : entries.value()) {
      if (!e.name.ends_with(kExtension)) continue;
      files.push_back({joinPath(projectDir, e.name), e.name.substr(0, e.name.size() - kExtension.size()),
                       projectDir, false});
    }
    for (const auto& e : entries.value()) {
      if (!e.isDirectory) continue;
      const std::string subagents = joinPath(joinPath(projectDir, e.name), "subagents");
      if (!isDirectory(fs, subagents)) continue;
      for (auto& path : findJSONLFilesRecursively(fs, subagents, unreadable))
        files.push_back({std::move(path), e.name, projectDir, true});
    }
  }
  return files;
}

std::vector<SessionGroup> sessionGroups(const std::vector<TranscriptFile>& files) {
  std::map<std::pair<std::string_view, std::string_view>, SessionGroup> groups;  // by id, then project
  for (const TranscriptFile& f : files) {
    auto [it, inserted] = groups.try_emplace({f.sessionId, f.projectDirPath});
    SessionGroup& g = it->second;
    if (inserted) {
      g.sessionId = f.sessionId;
      g.projectDirPath = f.projectDirPath;
    }
    if (f.isSubagent)
      g.subagentFiles.push_back(f.path);
    else
      g.mainFile = f.path;
  }
  std::vector<SessionGroup> out;
  out.reserve(groups.size());
  for (auto& [key, group] : groups) {
    std::sort(group.subagentFiles.begin(), group.subagentFiles.end());
    out.push_back(std::move(group));
  }
  return out;
}

std::vector<SessionGroup> discoverSessionGroups(FileSystem& fs, const std::string& root, Unreadable* unreadable) {
  return sessionGroups(discoverFiles(fs, root, unreadable));
}

std::vector<TranscriptFile> meteringOrder(const std::vector<SessionGroup>& groups) {
  std::vector<TranscriptFile> files;
  for (const SessionGroup& g : groups) {
    if (g.mainFile) files.push_back({*g.mainFile, g.sessionId, g.projectDirPath, false});
    for (const auto& path : g.subagentFiles) files.push_back({path, g.sessionId, g.projectDirPath, true});
  }
  return files;
}

}  // namespace ostler::SessionDiscovery
