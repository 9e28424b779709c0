#include "daemon/config_files.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

namespace ostler {
namespace {

// The file's top-level JSON object; nothing for a missing file, bad JSON or
// any other top level.
std::optional<nlohmann::json> readObject(const std::string& path) {
  if (path.empty()) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  return j;
}

}  // namespace

namespace OstlerConfig {

std::optional<int> billingDay(const std::string& path) {
  auto j = readObject(path);
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

std::optional<std::string> extraUsageDisabledReason(const std::string& path) {
  auto j = readObject(path);
  if (!j) return std::nullopt;
  auto it = j->find("cachedExtraUsageDisabledReason");
  if (it == j->end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::string defaultPath(const DaemonDefaults::Environment& env) { return env.home + "/.claude.json"; }

}  // namespace ClaudeConfig

template <typename T, typename Read>
T ConfigFiles::readThrough(Memo<T>& memo, const std::string& path, Read read) {
  struct stat st;
  if (path.empty() || ::stat(path.c_str(), &st) != 0) {
    memo = {};
    return T{};
  }
  const Signature signature{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                            static_cast<int64_t>(st.st_size),
                            static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
  if (memo.path != path || memo.signature != signature) memo = {path, signature, read(path)};
  return memo.value;
}

std::optional<int> ConfigFiles::billingDay(const std::string& path) {
  return readThrough(billingDay_, path, OstlerConfig::billingDay);
}

std::optional<std::string> ConfigFiles::extraUsageDisabledReason(const std::string& path) {
  return readThrough(extraUsage_, path, ClaudeConfig::extraUsageDisabledReason);
}

}  // namespace ostler
