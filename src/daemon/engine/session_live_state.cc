#include "daemon/engine/session_live_state.h"

#include "transcript/text.h"

namespace ostler {
namespace {

SetupTaxCapture capture(const std::optional<std::string>& requestId, std::string_view model, const TurnUsage& u) {
  return {requestId, u.input, u.output, u.cacheRead, u.cache5m, u.cache1h, std::string(model)};
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

std::string fallbackProject(std::string_view projectDirPath) {
  std::string_view name = text::lastPathComponent(projectDirPath);
  size_t i = 0;
  while (i < name.size() && name[i] == '-') ++i;
  return std::string(name.substr(i));
}

}  // namespace ostler
