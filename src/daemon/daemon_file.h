// One transcript file as the live engine finds it under the root.
#pragma once

#include <string>

namespace ostler {

struct DaemonFile {
  std::string path;            // absolute path of the file
  std::string sessionId;       // file stem; for a subagent file, the name of its session directory
  std::string projectDirPath;  // the project directory under the root
  bool isSubagent = false;

  friend bool operator==(const DaemonFile&, const DaemonFile&) = default;
};

}  // namespace ostler
