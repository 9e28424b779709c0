#include "daemon/loop/config_files.h"

#include <nlohmann/json.hpp>

namespace ostler {
namespace {

// The file's top-level JSON object; nothing for a missing file, bad JSON or
// any other top level.
std::optional<nlohmann::json> readObject(FileSystem& fs, const std::string& path) {
  if (path.empty()) return std::nullopt;
  auto text = readWholeFile(fs, path);
  if (!text) return std::nullopt;
  nlohmann::json j = nlohmann::json::parse(text.value(), nullptr, false);
  if (!j.is_object()) return std::nullopt;
  return j;
}

}  // namespace

namespace OstlerConfig {

std::optional<int> billingDay(FileSystem& fs, const std::string& path) {
  auto j = readObject(fs, path);
  if (!j) return std::nullopt;
  auto it = j->find("billing_day");
  // An integer literal only: 5.0 is not a day.
  if (it == j->end() || !it->is_number_integer()) return std::nullopt;
  // Non-negative literals are held unsigned; one past the signed range must
  // not wrap into the days.
  if (it->is_number_unsigned() && it->get<uint64_t>() > 31) return std::nullopt;
  const auto day = it->get<int64_t>();
  if (day < 1 || day > 31) return std::nullopt;
  return static_cast<int>(day);
}

std::string defaultPath(const DaemonDefaults::Environment& env) {
  return DaemonDefaults::applicationSupportDirectory(env) + "/config.json";
}

}  // namespace OstlerConfig

namespace ClaudeConfig {

std::optional<std::string> extraUsageDisabledReason(FileSystem& fs, const std::string& path) {
  auto j = readObject(fs, path);
  if (!j) return std::nullopt;
  auto it = j->find("cachedExtraUsageDisabledReason");
  if (it == j->end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::string defaultPath(const DaemonDefaults::Environment& env) { return env.home + "/.claude.json"; }

}  // namespace ClaudeConfig

template <typename T, typename Read>
T ConfigFiles::readThrough(FileSystem& fs, Memo<T>& memo, const std::string& path, Read read) {
  auto info = path.empty() ? Result<FileInfo>(Error{}) : fs.stat(path);
  if (!info) {
    memo = {};
    return T{};
  }
  const FileInfo& i = info.value();
  const Signature signature{i.device, i.inode, static_cast<int64_t>(i.size), i.modifiedNs};
  if (memo.path != path || memo.signature != signature) memo = {path, signature, read(fs, path)};
  return memo.value;
}

std::optional<int> ConfigFiles::billingDay(FileSystem& fs, const std::string& path) {
  return readThrough(fs, billingDay_, path, OstlerConfig::billingDay);
}

std::optional<std::string> ConfigFiles::extraUsageDisabledReason(FileSystem& fs, const std::string& path) {
  return readThrough(fs, extraUsage_, path, ClaudeConfig::extraUsageDisabledReason);
}

}  // namespace ostler
