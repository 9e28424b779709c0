#include "daemon/session_live_state.h"

#include "daemon/json_fields.h"
#include "meter/text.h"

namespace ostler {
namespace {

SetupTaxCapture capture(const std::optional<std::string>& requestId, std::string_view model, const TurnUsage& u) {
  return {requestId, u.input, u.output, u.cacheRead, u.cache5m, u.cache1h, std::string(model)};
}

void putInstant(nlohmann::json& j, const char* key, const std::optional<InstantMs>& t) {
  if (t) j[key] = JsonFields::referenceSeconds(*t);
}

void putString(nlohmann::json& j, const char* key, const std::optional<std::string>& s) {
  if (s) j[key] = *s;
}

}  // namespace

void SessionLiveState::considerForSetupTax(InstantMs ts, const std::optional<std::string>& requestId,
                                           std::string_view model, const TurnUsage& usage) {
  if (!setupTaxAt) {
    setupTaxAt = ts;
    setupTax = capture(requestId, model, usage);
  } else if (requestId && setupTax && setupTax->requestId == requestId) {
    setupTax = capture(requestId, model, usage);
  } else if (ts < *setupTaxAt) {
    setupTaxAt = ts;
    setupTax = capture(requestId, model, usage);
  }
}

nlohmann::json toJson(const SetupTaxCapture& c) {
  nlohmann::json j = {{"input", c.input},     {"output", c.output},   {"cacheRead", c.cacheRead},
                      {"cache5m", c.cache5m}, {"cache1h", c.cache1h}, {"model", c.model}};
  putString(j, "requestId", c.requestId);
  return j;
}

SetupTaxCapture setupTaxCaptureFromJson(const nlohmann::json& j) {
  using namespace JsonFields;
  object(j, "SetupTaxCapture");
  SetupTaxCapture c;
  c.requestId = optionalString(j, "requestId");
  c.input = requireInt(j, "input");
  c.output = requireInt(j, "output");
  c.cacheRead = requireInt(j, "cacheRead");
  c.cache5m = requireInt(j, "cache5m");
  c.cache1h = requireInt(j, "cache1h");
  c.model = requireString(j, "model");
  return c;
}

nlohmann::json toJson(const SessionLiveState& s) {
  nlohmann::json j = {{"project", s.project},
                      {"projectDirPath", s.projectDirPath},
                      {"lastModel", s.lastModel},
                      {"lastContextTokens", s.lastContextTokens},
                      {"lastCacheWriteWasEphemeral1h", s.lastCacheWriteWasEphemeral1h}};
  putInstant(j, "lastActivity", s.lastActivity);
  putInstant(j, "contextTurnAt", s.contextTurnAt);
  putInstant(j, "lastCacheWriteAt", s.lastCacheWriteAt);
  putInstant(j, "setupTaxAt", s.setupTaxAt);
  if (s.setupTax) j["setupTax"] = toJson(*s.setupTax);
  putString(j, "customTitle", s.customTitle);
  putString(j, "aiTitle", s.aiTitle);
  putString(j, "firstUserMessage", s.firstUserMessage);
  return j;
}

SessionLiveState sessionLiveStateFromJson(const nlohmann::json& j) {
  using namespace JsonFields;
  object(j, "SessionLiveState");
  SessionLiveState s;
  s.project = requireString(j, "project");
  s.projectDirPath = requireString(j, "projectDirPath");
  s.lastModel = requireString(j, "lastModel");
  s.lastContextTokens = requireInt(j, "lastContextTokens");
  s.lastCacheWriteWasEphemeral1h = requireBool(j, "lastCacheWriteWasEphemeral1h");
  s.lastActivity = optionalInstant(j, "lastActivity");
  s.contextTurnAt = optionalInstant(j, "contextTurnAt");
  s.lastCacheWriteAt = optionalInstant(j, "lastCacheWriteAt");
  s.setupTaxAt = optionalInstant(j, "setupTaxAt");
  if (const auto* v = find(j, "setupTax")) s.setupTax = setupTaxCaptureFromJson(*v);
  s.customTitle = optionalString(j, "customTitle");
  s.aiTitle = optionalString(j, "aiTitle");
  s.firstUserMessage = optionalString(j, "firstUserMessage");
  return s;
}

std::string fallbackProject(std::string_view projectDirPath) {
  std::string_view name = text::lastPathComponent(projectDirPath);
  size_t i = 0;
  while (i < name.size() && name[i] == '-') ++i;
  return std::string(name.substr(i));
}

}  // namespace ostler
