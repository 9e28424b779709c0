// Finds the transcript files of a tree in one walk. Under the root stands one
// folder per project; each chat has a top-level "{id}.jsonl" and may have a
// folder "{id}/subagents" of JSONL files, at any depth below it. A session is
// a file and the subagent files that belong to it, never what its lines say.
//
// Readers need the files in two orders, both from the same walk:
// - following order (`discoverFiles`): project folders by name; within a
//   project every top-level file by name, then the subagent files of each
//   "{id}/subagents" folder, session by session, each set sorted. The live
//   engine and the window scan read in this order;
// - metering order (`sessionGroups`): sessions sorted by id and then by
//   project folder, each its main file and then its subagent files.
// The order decides which copy of a request repeated across files counts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "transcript/unreadable.h"

namespace ostler {

struct TranscriptFile {
  std::string path;            // full path
  std::string sessionId;       // the file stem; for a subagent file, the name of its session folder
  std::string projectDirPath;  // full path of its project folder
  bool isSubagent = false;

  friend bool operator==(const TranscriptFile&, const TranscriptFile&) = default;
};

struct SessionGroup {
  std::string sessionId;
  std::string projectDirPath;
  std::optional<std::string> mainFile;     // full path of the top-level file
  std::vector<std::string> subagentFiles;  // full paths, sorted

  friend bool operator==(const SessionGroup&, const SessionGroup&) = default;
};

namespace SessionDiscovery {

// Every transcript file under `root`, in following order. Never fails: a
// project or subagent folder that cannot be listed contributes nothing, and
// is noted in `unreadable` when given (the root is its caller's to judge).
// Names ending in ".jsonl" are taken as they are listed; whether they can be
// read is the reader's to find out.
[[nodiscard]] std::vector<TranscriptFile> discoverFiles(FileSystem& fs, const std::string& root,
                                                        Unreadable* unreadable = nullptr);

// The sessions of `files` in metering order.
[[nodiscard]] std::vector<SessionGroup> sessionGroups(const std::vector<TranscriptFile>& files);

// `sessionGroups` of a fresh walk.
[[nodiscard]] std::vector<SessionGroup> discoverSessionGroups(FileSystem& fs, const std::string& root,
                                                              Unreadable* unreadable = nullptr);

// The files of `groups` in metering order: each main file, then its
// subagent files.
[[nodiscard]] std::vector<TranscriptFile> meteringOrder(const std::vector<SessionGroup>& groups);

// Full paths of every file below `path` whose name ends in ".jsonl", sorted;
// links are listed but never entered, folders of any name are walked and
// not listed. Empty when `path` cannot be walked.
[[nodiscard]] std::vector<std::string> findJSONLFilesRecursively(FileSystem& fs, const std::string& path,
                                                                Unreadable* unreadable = nullptr);

}  // namespace SessionDiscovery
}  // namespace ostler
