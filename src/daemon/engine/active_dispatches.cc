#include "daemon/engine/active_dispatches.h"

#include "transcript/session_discovery.h"

namespace ostler::ActiveDispatches {

std::vector<std::string> files(FileSystem& fs, const std::string& projectDirPath, const std::string& sessionId,
                               InstantMs now, double withinSeconds) {
  // Built as discovery builds it, so the paths match the engine's keys.
  const std::string subagents = joinPath(joinPath(projectDirPath, sessionId), "subagents");
  std::vector<std::string> active;
  if (!isDirectory(fs, subagents)) return active;
  for (auto& path : SessionDiscovery::findJSONLFilesRecursively(fs, subagents)) {
    auto info = fs.stat(path);
    if (!info) continue;
    const double age = static_cast<double>(now) / 1000.0 - static_cast<double>(info.value().modifiedNs) / 1e9;
    if (age <= withinSeconds && age >= -1.0) active.push_back(std::move(path));
  }
  return active;
}

}  // namespace ostler::ActiveDispatches
