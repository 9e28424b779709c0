#include "daemon/file_media_state.h"

#include "daemon/json_fields.h"

namespace ostler {

nlohmann::json toJson(const FileMediaState& m) {
  nlohmann::json j = {{"sessionId", m.sessionId},
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
  if (m.runLastImageAt) j["runLastImageAt"] = JsonFields::referenceSeconds(*m.runLastImageAt);
  if (m.openRequestId) j["openRequestId"] = *m.openRequestId;
  if (m.openFamily) j["openFamily"] = *m.openFamily;
  return j;
}

FileMediaState fileMediaStateFromJson(const nlohmann::json& j) {
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

}  // namespace ostler
