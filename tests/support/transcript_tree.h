// Small hand-written transcript trees for tests: builders of Claude Code
// lines as JSON values (a test may still edit one before writing it), and a
// tree in a temporary folder that the meter reads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "meter/meter_engine.h"
#include "transcript/iso8601.h"
#include "support/fake_clock.h"
#include "support/test_support.h"

namespace ostler::testing {

using nlohmann::json;

// Token counts of one line's usage.
struct Tokens {
  int64_t input = 0;
  int64_t output = 0;
  int64_t cacheRead = 0;
  int64_t cache5m = 0;
  int64_t cache1h = 0;
};

// 2026-11-01T10:00:00Z, the origin of `at`.
inline constexpr InstantMs kOrigin = 1'793'527'200'000;

// The instant `seconds` after the origin, with milliseconds.
inline std::string at(double seconds) {
  return ISO8601::fractional(kOrigin + static_cast<InstantMs>(seconds * 1000.0));
}

// A `usage` object with the cache writes in the split object.
inline json usage(const Tokens& t) {
  return {{"input_tokens", t.input},
          {"output_tokens", t.output},
          {"cache_read_input_tokens", t.cacheRead},
          {"cache_creation_input_tokens", t.cache5m + t.cache1h},
          {"cache_creation", {{"ephemeral_5m_input_tokens", t.cache5m}, {"ephemeral_1h_input_tokens", t.cache1h}}}};
}

inline json textBlock(const std::string& text) { return {{"type", "text"}, {"text", text}}; }

inline json toolUse(const std::string& id, const std::string& name, json input) {
  return {{"type", "tool_use"}, {"id", id}, {"name", name}, {"input", std::move(input)}};
}

inline json bash(const std::string& id, const std::string& command) {
  return toolUse(id, "Bash", {{"command", command}});
}

inline json readFile(const std::string& id, const std::string& path) {
  return toolUse(id, "Read", {{"file_path", path}});
}

inline json toolResult(const std::string& id, json content) {
  return {{"type", "tool_result"}, {"tool_use_id", id}, {"content", std::move(content)}};
}

// An image block whose Base64 text has `chars` characters.
inline json imageBlock(size_t chars) {
  return {{"type", "image"}, {"source", {{"type", "base64"}, {"media_type", "image/png"}, {"data", std::string(chars, 'A')}}}};
}

// An assistant line; `requestId` absent leaves the key out.
inline json assistant(const std::optional<std::string>& requestId, const std::string& model, const Tokens& t,
                      const std::string& timestamp, json content = json::array()) {
  json line = {{"type", "assistant"},
               {"timestamp", timestamp},
               {"cwd", "/home/dev/shop"},
               {"message", {{"model", model}, {"usage", usage(t)}, {"content", std::move(content)}}}};
  if (requestId) line["requestId"] = *requestId;
  return line;
}

// A user line; `content` is a string or a list of blocks.
inline json user(json content, const std::string& timestamp) {
  return {{"type", "user"},
          {"timestamp", timestamp},
          {"cwd", "/home/dev/shop"},
          {"message", {{"role", "user"}, {"content", std::move(content)}}}};
}

inline json compactBoundary(const std::string& uuid, int64_t pre, int64_t post, const std::string& timestamp,
                            const std::optional<std::string>& trigger = std::nullopt) {
  json meta = {{"preTokens", pre}, {"postTokens", post}};
  if (trigger) meta["trigger"] = *trigger;
  json line = {{"type", "system"}, {"subtype", "compact_boundary"}, {"timestamp", timestamp},
               {"compactMetadata", std::move(meta)}};
  if (!uuid.empty()) line["uuid"] = uuid;
  return line;
}

// The lines as JSONL, each followed by a line feed.
inline std::string lines(const std::vector<json>& values) {
  std::string out;
  for (const auto& v : values) out += v.dump() + "\n";
  return out;
}

// A transcript root in a temporary folder.
class Tree {
 public:
  const std::filesystem::path& root() const { return dir_.path(); }

  // Writes `values` as the top-level file of `session` in `project`.
  void main(const std::string& project, const std::string& session, const std::vector<json>& values) {
    writeFile(root() / project / (session + ".jsonl"), lines(values));
  }
  // Writes `values` as a subagent file of `session`.
  void subagent(const std::string& project, const std::string& session, const std::string& agent,
                const std::vector<json>& values) {
    writeFile(root() / project / session / "subagents" / (agent + ".jsonl"), lines(values));
  }

  [[nodiscard]] MeterOptions options() const {
    MeterOptions o;
    o.root = root().string();
    return o;
  }
  [[nodiscard]] Receipt run() const { return run(options()); }
  [[nodiscard]] Receipt run(const MeterOptions& o) const { return MeterEngine::run(systemFileSystem(), o, nullptr, clock_); }
  [[nodiscard]] MeterRun runWithLoopDetail() const {
    return MeterEngine::runWithLoopDetail(systemFileSystem(), options(), nullptr, clock_);
  }

 private:
  TempDir dir_;
  FakeClock clock_{kOrigin};
};

}  // namespace ostler::testing

namespace ostler {

// Readable failures for the receipt rows that tests compare whole.
inline void PrintTo(const ReceiptDetailLine& d, std::ostream* os) {
  *os << std::setprecision(17) << "{\"" << d.text << "\", " << d.usd << ", " << d.session_id.value_or("-") << "}";
}
inline void PrintTo(const ReceiptByModel& m, std::ostream* os) {
  *os << std::setprecision(17) << "{\"" << m.model << "\", " << m.turns << ", " << m.spent_usd << "}";
}

}  // namespace ostler
