// Transcript lines for the daemon's tests, written the way Claude Code writes
// them, so that each test states only what it is about; and a tree of them
// in a temporary folder that a live engine follows.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "daemon/engine/live_engine.h"
#include "platform/hid_idle_source.h"
#include "support/test_support.h"
#include "transcript/iso8601.h"

namespace ostler::testing {

struct Usage {
  int64_t input = 0;
  int64_t output = 0;
  int64_t cacheRead = 0;
  int64_t cache5m = 0;
  int64_t cache1h = 0;
};

struct Assistant {
  std::string timestamp = "2026-03-10T10:00:00.000Z";
  std::optional<std::string> requestId = std::nullopt;
  std::string model = "claude-opus-4-1";
  std::optional<Usage> usage = Usage{};
  std::optional<std::string> text = std::nullopt;  // one text block
  bool apiError = false;
};

inline std::string assistantLine(const Assistant& a) {
  nlohmann::json message = {{"role", "assistant"}, {"model", a.model}, {"content", nlohmann::json::array()}};
  if (const auto& u = a.usage)
    message["usage"] = {
        {"input_tokens", u->input},
        {"output_tokens", u->output},
        {"cache_read_input_tokens", u->cacheRead},
        {"cache_creation_input_tokens", u->cache5m + u->cache1h},
        {"cache_creation", {{"ephemeral_5m_input_tokens", u->cache5m}, {"ephemeral_1h_input_tokens", u->cache1h}}}};
  if (a.text) message["content"].push_back({{"type", "text"}, {"text", *a.text}});
  nlohmann::json j = {{"type", "assistant"}, {"timestamp", a.timestamp}, {"message", message}};
  if (a.requestId) j["requestId"] = *a.requestId;
  if (a.apiError) j["isApiErrorMessage"] = true;
  return j.dump();
}

// An assistant line of request `requestId` (none when absent) at `timestamp`.
inline std::string turnLine(const std::string& timestamp, const std::optional<std::string>& requestId,
                            const Usage& usage, const std::string& model = "claude-opus-4-1") {
  return assistantLine({.timestamp = timestamp, .requestId = requestId, .model = model, .usage = usage});
}

// A limit message: the synthetic API error Claude Code writes when the user
// is cut off.
inline std::string limitLine(const std::string& timestamp, const std::string& text) {
  return assistantLine({.timestamp = timestamp, .model = "<synthetic>", .text = text, .apiError = true});
}

// A user line; `content` is typed text or a list of blocks.
inline std::string userLine(const nlohmann::json& content, const std::string& timestamp) {
  const nlohmann::json message = {{"role", "user"}, {"content", content}};
  return nlohmann::json{{"type", "user"}, {"timestamp", timestamp}, {"message", message}}.dump();
}

inline std::string userTextLine(const std::string& text, const std::string& timestamp = "2026-03-10T09:59:00.000Z") {
  return userLine(text, timestamp);
}

// A user line holding `images` image blocks of `base64Chars` characters each.
inline std::string userImageLine(int images, size_t base64Chars,
                                 const std::string& timestamp = "2026-03-10T09:59:00.000Z") {
  nlohmann::json content = nlohmann::json::array();
  for (int i = 0; i < images; ++i)
    content.push_back({{"type", "image"}, {"source", {{"type", "base64"}, {"data", std::string(base64Chars, 'A')}}}});
  return userLine(content, timestamp);
}

inline InstantMs at(const char* iso) { return *ISO8601::parse(iso); }

// A user always at the machine.
class NoIdle final : public HIDIdleSource {
 public:
  [[nodiscard]] double idleSeconds() const override { return 0; }
};

// A transcript root in a temporary folder and a live engine following it.
struct LiveTree {
  explicit LiveTree(const PricingTable& pricing = PricingTable::defaultTable(), const std::string& zone = "UTC")
      : engine(systemFileSystem(), pricing, zone) {}
  // Appends `lines` to the file at `path` below the root, making it.
  void append(const std::string& path, const std::vector<std::string>& lines) const {
    appendFile(dir.path() / path, jsonl(lines));
  }
  std::set<std::string> poll(InstantMs now) { return engine.poll(dir.str(), now); }
  [[nodiscard]] std::string path(const std::string& below) const { return (dir.path() / below).string(); }

  TempDir dir;
  LiveEngine engine;
};

}  // namespace ostler::testing

namespace ostler {

// Failures show the engine's records as the JSON they are written as.
template <typename T>
  requires requires(const T& v) { toJson(v).dump(); }
void PrintTo(const T& v, std::ostream* os) {
  *os << toJson(v).dump();
}

}  // namespace ostler
