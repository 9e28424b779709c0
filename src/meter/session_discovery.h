// Finds the sessions of a transcript tree. A session is a file and the
// subagent files that belong to it, never what its lines say: under the root
// stands one directory per project; each chat has a top-level "{id}.jsonl"
// and may have a directory "{id}/subagents" of JSONL files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ostler {

struct SessionGroup {
  std::string sessionId;       // the file stem, or the name of the directory holding "subagents"
  std::string projectDirPath;  // full path of the project directory
  std::optional<std::string> mainFile;     // full path of the top-level file
  std::vector<std::string> subagentFiles;  // full paths of the subagent files

  friend bool operator==(const SessionGroup&, const SessionGroup&) = default;
};

// Every group under `root`, sorted by session id and then by project
// directory. What cannot be listed is passed over.
[[nodiscard]] std::vector<SessionGroup> discoverSessionGroups(const std::string& root);

// Full paths of every file below `path` whose name ends in ".jsonl", sorted;
// links are listed but never entered, folders of any name are walked and
// not listed. Empty when `path` cannot be walked.
[[nodiscard]] std::vector<std::string> findJSONLFilesRecursively(const std::string& path);

// One file for a main file, plus one per subagent file.
[[nodiscard]] int64_t countFiles(const std::vector<SessionGroup>& groups);

}  // namespace ostler
