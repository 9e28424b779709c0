#include "daemon/persisted_state.h"

#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "daemon/atomic_file.h"
#include "daemon/json_fields.h"

namespace ostler {
namespace {

using namespace JsonFields;

template <typename V, typename Decode>
std::map<std::string, V> decodeMap(const nlohmann::json& j, const char* key, Decode decode) {
  const nlohmann::json& o = object(require(j, key), key);
  std::map<std::string, V> out;
  for (const auto& [k, v] : o.items()) out.emplace(k, decode(v, key));
  return out;
}

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

}  // namespace

nlohmann::json toJson(const PersistedState& s) {
  nlohmann::json j = nlohmann::json::object();
  j["stateVersion"] = s.stateVersion;
  j["root"] = s.root;
  j["fileOffsets"] = s.fileOffsets;
  nlohmann::json& media = j["fileMediaState"] = nlohmann::json::object();
  for (const auto& [path, m] : s.fileMediaState) media[path] = toJson(m);
  nlohmann::json& sessions = j["sessionState"] = nlohmann::json::object();
  for (const auto& [id, st] : s.sessionState) sessions[id] = toJson(st);
  if (s.quotaLastEventAt) j["quotaLastEventAt"] = *s.quotaLastEventAt;
  if (s.quotaResetsNote) j["quotaResetsNote"] = *s.quotaResetsNote;
  j["newLinesSeen"] = s.newLinesSeen;
  j["newLinesSkipped"] = s.newLinesSkipped;
  if (s.todayBoundary) j["todayBoundary"] = referenceSeconds(*s.todayBoundary);
  j["todaySpentUSD"] = s.todaySpentUSD;
  j["todayTurns"] = s.todayTurns;
  j["todayTokensByFamily"] = s.todayTokensByFamily;
  nlohmann::json& burns = j["recentBurns"] = nlohmann::json::array();
  for (const auto& b : s.recentBurns) burns.push_back(toJson(b));
  if (s.cachedWalls) j["cachedWalls"] = WindowScan::toJson(*s.cachedWalls);
  j["subagentLastModel"] = s.subagentLastModel;
  j["seenRequestIds"] = s.seenRequestIds;
  return j;
}

PersistedState persistedStateFromJson(const nlohmann::json& j) {
  object(j, "PersistedState");
  PersistedState s;
  s.stateVersion = requireInt(j, "stateVersion");
  s.root = requireString(j, "root");
  s.fileOffsets = decodeMap<int64_t>(j, "fileOffsets", [](const nlohmann::json& v, const char* k) { return asInt(v, k); });
  s.fileMediaState = decodeMap<FileMediaState>(
      j, "fileMediaState", [](const nlohmann::json& v, const char*) { return fileMediaStateFromJson(v); });
  s.sessionState = decodeMap<SessionLiveState>(
      j, "sessionState", [](const nlohmann::json& v, const char*) { return sessionLiveStateFromJson(v); });
  s.quotaLastEventAt = optionalString(j, "quotaLastEventAt");
  s.quotaResetsNote = optionalString(j, "quotaResetsNote");
  s.newLinesSeen = requireInt(j, "newLinesSeen");
  s.newLinesSkipped = requireInt(j, "newLinesSkipped");
  s.todayBoundary = optionalInstant(j, "todayBoundary");
  s.todaySpentUSD = requireDouble(j, "todaySpentUSD");
  s.todayTurns = requireInt(j, "todayTurns");
  s.todayTokensByFamily =
      decodeMap<int64_t>(j, "todayTokensByFamily", [](const nlohmann::json& v, const char* k) { return asInt(v, k); });
  const nlohmann::json& burns = require(j, "recentBurns");
  if (!burns.is_array()) throw DecodeError("recentBurns: not an array");
  for (const auto& b : burns) s.recentBurns.push_back(burnEventFromJson(b));
  if (const auto* w = find(j, "cachedWalls")) s.cachedWalls = WindowScan::wallsFromJson(*w);
  s.subagentLastModel = decodeMap<std::string>(
      j, "subagentLastModel", [](const nlohmann::json& v, const char* k) { return asString(v, k); });
  const nlohmann::json& ids = require(j, "seenRequestIds");
  if (!ids.is_array()) throw DecodeError("seenRequestIds: not an array");
  s.seenRequestIds.reserve(ids.size());
  for (const auto& id : ids) s.seenRequestIds.push_back(asString(id, "seenRequestIds"));
  return s;
}

namespace PersistedStateIO {

std::string defaultPath(const std::string& root) {
  return std::string(kScratchDirectory) + "/state-" + sha256Hex(root) + ".json";
}

Result<int64_t> save(const PersistedState& state, const std::string& path) {
  std::filesystem::path dir = std::filesystem::path(path).parent_path();
  if (!dir.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return Error{"cannot create " + dir.string() + ": " + ec.message()};
  }
  std::string bytes;
  try {
    // Strings are valid UTF-8 by construction; replacing guards the odd
    // path name that is not, rather than losing the whole save.
    bytes = toJson(state).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (const nlohmann::json::exception& e) {
    return Error{e.what()};
  }
  return AtomicFile::write(path, bytes);
}

std::optional<PersistedState> load(const std::string& path, const std::string& expectedRoot) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  try {
    auto j = nlohmann::json::parse(text.str());
    // Version and root are judged before the rest, so that a file of another
    // version is refused for what it is even when its layout differs.
    if (!j.is_object()) return std::nullopt;
    if (optionalInt(j, "stateVersion") != PersistedState::kVersion) return std::nullopt;
    if (optionalString(j, "root") != expectedRoot) return std::nullopt;
    return persistedStateFromJson(j);
  } catch (const DecodeError&) {
    return std::nullopt;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

}  // namespace PersistedStateIO
}  // namespace ostler
