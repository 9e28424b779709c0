// The two keys the engine reads from files that others own: the billing day
// from Ostler's own configuration, and why extra usage is off from Claude
// Code's. Each feed asks for both, so a changed file shows in the next one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemon/loop/daemon_options.h"
#include "platform/file_system.h"

namespace ostler {

namespace OstlerConfig {
// `billing_day` of the JSON object in `path`: an integer from 1 to 31, else
// nothing (also for a missing or unreadable file).
[[nodiscard]] std::optional<int> billingDay(FileSystem& fs, const std::string& path);
// "config.json" in the application-support directory.
[[nodiscard]] std::string defaultPath(const DaemonDefaults::Environment& env);
}  // namespace OstlerConfig

namespace ClaudeConfig {
// `cachedExtraUsageDisabledReason` of the JSON object in `path` when it is a
// string, else nothing.
[[nodiscard]] std::optional<std::string> extraUsageDisabledReason(FileSystem& fs, const std::string& path);
// "~/.claude.json".
[[nodiscard]] std::string defaultPath(const DaemonDefaults::Environment& env);
}  // namespace ClaudeConfig

// Both keys as each feed reads them, parsing a file again only when its
// inode, size or modification time changed: ~/.claude.json runs to
// megabytes, and a tick must stay cheap. Used from one thread.
class ConfigFiles {
 public:
  [[nodiscard]] std::optional<int> billingDay(FileSystem& fs, const std::string& path);
  [[nodiscard]] std::optional<std::string> extraUsageDisabledReason(FileSystem& fs, const std::string& path);

 private:
  struct Signature {
    uint64_t device = 0, inode = 0;
    int64_t size = 0, modifiedNs = 0;
    friend bool operator==(const Signature&, const Signature&) = default;
  };
  template <typename T>
  struct Memo {
    std::string path;
    std::optional<Signature> signature;
    T value;
  };
  template <typename T, typename Read>
  static T readThrough(FileSystem& fs, Memo<T>& memo, const std::string& path, Read read);

  Memo<std::optional<int>> billingDay_;
  Memo<std::optional<std::string>> extraUsage_;
};

}  // namespace ostler
