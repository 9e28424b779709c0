// The saved state's records as nlohmann::json trees: the reference the
// direct codec is checked against. Keys are the field names; optional fields
// are left out when unset and take their defaults when missing. Decoding
// throws JsonFields::DecodeError.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "daemon/burn_event.h"
#include "daemon/cutoff_observation.h"
#include "daemon/file_media_state.h"
#include "daemon/json_fields.h"
#include "daemon/session_live_state.h"
#include "daemon/window_scan.h"

namespace ostler::StateTree {

using nlohmann::json;

inline void putInstant(json& j, const char* key, const std::optional<InstantMs>& t) {
  if (t) j[key] = JsonFields::referenceSeconds(*t);
}

inline void putString(json& j, const char* key, const std::optional<std::string>& s) {
  if (s) j[key] = *s;
}

inline json toJson(const CutoffObservation& o) { return {{"valueUSD", o.valueUSD}, {"tokens", o.tokens}}; }

inline CutoffObservation cutoffObservationFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "CutoffObservation");
  return {requireDouble(j, "valueUSD"), requireInt(j, "tokens")};
}

inline json toJson(const BurnEvent& e) {
  return {{"timestamp", JsonFields::referenceSeconds(e.timestamp)},
          {"costUSD", e.costUSD},
          {"isFableFamily", e.isFableFamily},
          {"tokens", e.tokens}};
}

inline BurnEvent burnEventFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "BurnEvent");
  return {requireInstant(j, "timestamp"), requireDouble(j, "costUSD"), requireBool(j, "isFableFamily"),
          requireInt(j, "tokens")};
}

// The image fields are required; the `open` fields and `runLastImageAt` may
// be missing.
inline json toJson(const FileMediaState& m) {
  json j = {{"sessionId", m.sessionId},
            {"pendingImageTokens", m.pendingImageTokens},
            {"pendingImageCount", m.pendingImageCount},
            {"runImageCount", m.runImageCount},
            {"runUsdSoFar", m.runUsdSoFar},
            {"runTokensSoFar", m.runTokensSoFar},
            {"nonImageStreak", m.nonImageStreak},
            {"openCostUSD", m.openCostUSD},
            {"openContextTokens", m.openContextTokens},
            {"openOutputTokens", m.openOutputTokens},
            {"openCountsForToday", m.openCountsForToday},
            {"openIsStub", m.openIsStub},
            {"openTurnCounted", m.openTurnCounted},
            {"openIsDuplicate", m.openIsDuplicate}};
  putInstant(j, "runLastImageAt", m.runLastImageAt);
  putString(j, "openRequestId", m.openRequestId);
  putString(j, "openFamily", m.openFamily);
  return j;
}

inline FileMediaState fileMediaStateFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "FileMediaState");
  FileMediaState m;
  m.sessionId = requireString(j, "sessionId");
  m.pendingImageTokens = requireInt(j, "pendingImageTokens");
  m.pendingImageCount = requireInt(j, "pendingImageCount");
  m.runImageCount = requireInt(j, "runImageCount");
  m.runUsdSoFar = requireDouble(j, "runUsdSoFar");
  m.runTokensSoFar = requireInt(j, "runTokensSoFar");
  m.nonImageStreak = requireInt(j, "nonImageStreak");
  m.runLastImageAt = optionalInstant(j, "runLastImageAt");
  m.openRequestId = optionalString(j, "openRequestId");
  m.openCostUSD = optionalDouble(j, "openCostUSD").value_or(0);
  m.openContextTokens = optionalInt(j, "openContextTokens").value_or(0);
  m.openOutputTokens = optionalInt(j, "openOutputTokens").value_or(0);
  m.openFamily = optionalString(j, "openFamily");
  m.openCountsForToday = optionalBool(j, "openCountsForToday").value_or(false);
  m.openIsStub = optionalBool(j, "openIsStub").value_or(true);
  m.openTurnCounted = optionalBool(j, "openTurnCounted").value_or(false);
  m.openIsDuplicate = optionalBool(j, "openIsDuplicate").value_or(false);
  return m;
}

inline json toJson(const SetupTaxCapture& c) {
  json j = {{"input", c.input},     {"output", c.output},   {"cacheRead", c.cacheRead},
            {"cache5m", c.cache5m}, {"cache1h", c.cache1h}, {"model", c.model}};
  putString(j, "requestId", c.requestId);
  return j;
}

inline SetupTaxCapture setupTaxCaptureFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "SetupTaxCapture");
  return {optionalString(j, "requestId"), requireInt(j, "input"),   requireInt(j, "output"),
          requireInt(j, "cacheRead"),     requireInt(j, "cache5m"), requireInt(j, "cache1h"),
          requireString(j, "model")};
}

inline json toJson(const SessionLiveState& s) {
  json j = {{"project", s.project},
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

inline SessionLiveState sessionLiveStateFromJson(const json& j) {
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

inline json toJson(const WindowScan::ShapeFacts& f) {
  json j = json::object();
  if (f.wall) j["wall"] = toJson(*f.wall);
  putInstant(j, "latestResetInstant", f.latestResetInstant);
  putString(j, "latestResetPhrase", f.latestResetPhrase);
  return j;
}

inline WindowScan::ShapeFacts shapeFactsFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "ShapeFacts");
  WindowScan::ShapeFacts f;
  if (const auto* w = find(j, "wall")) f.wall = cutoffObservationFromJson(*w);
  f.latestResetInstant = optionalInstant(j, "latestResetInstant");
  f.latestResetPhrase = optionalString(j, "latestResetPhrase");
  return f;
}

inline json toJson(const WindowScan::Walls& w) {
  return {{"session", toJson(w.session)}, {"week", toJson(w.week)}, {"weekTopModel", toJson(w.weekTopModel)}};
}

inline WindowScan::Walls wallsFromJson(const json& j) {
  using namespace JsonFields;
  object(j, "Walls");
  return {shapeFactsFromJson(require(j, "session")), shapeFactsFromJson(require(j, "week")),
          shapeFactsFromJson(require(j, "weekTopModel"))};
}

}  // namespace ostler::StateTree
