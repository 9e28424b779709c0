#include "daemon/loop/daemon_options.h"

#include "daemon/loop/config_files.h"
#include "daemon/state/persisted_state.h"
#include "platform/process.h"

namespace ostler {

DaemonOptions::DaemonOptions(std::string root_, std::string feedPath_, double interval_, PricingTable pricing_,
                             std::optional<std::string> scratchPath_, double odometerMinInterval_,
                             std::string macAiRunsPath_, std::string authorityStorePath_,
                             std::string planUsageHistoryPath_, std::string closeoutStorePath_,
                             std::string namesPath_)
    : root(std::move(root_)),
      feedPath(std::move(feedPath_)),
      interval(interval_),
      pricing(std::move(pricing_)),
      scratchPath(scratchPath_ ? std::move(*scratchPath_) : PersistedStateIO::defaultPath(root)),
      macAiRunsPath(std::move(macAiRunsPath_)),
      authorityStorePath(std::move(authorityStorePath_)),
      planUsageHistoryPath(std::move(planUsageHistoryPath_)),
      closeoutStorePath(std::move(closeoutStorePath_)),
      namesPath(std::move(namesPath_)),
      odometerMinInterval(odometerMinInterval_) {}

namespace DaemonDefaults {
namespace {

// An XDG base directory counts only when absolute.
std::string xdgOr(const std::optional<std::string>& value, const std::string& fallback) {
  return value && value->front() == '/' ? *value : fallback;
}

}  // namespace

Environment fromProcess() {
  return {environmentVariable("HOME").value_or(""), environmentVariable("XDG_DATA_HOME"),
          environmentVariable("XDG_CONFIG_HOME"), environmentVariable("LADDER_ROOT")};
}

std::string applicationSupportDirectory(const Environment& env) {
  return xdgOr(env.xdgDataHome, env.home + "/.local/share") + "/Ostler";
}

std::string transcriptRoot(const Environment& env) {
  if (env.ladderRoot && !env.ladderRoot->empty()) return *env.ladderRoot;
  return env.home + "/.claude/projects";
}

DaemonOptions options(const Environment& env, std::string root, std::string feedPath, double interval,
                      std::optional<std::string> scratchPath) {
  const std::string support = applicationSupportDirectory(env);
  const std::string claudeConfig = xdgOr(env.xdgConfigHome, env.home + "/.config") + "/Claude";
  // Development runs keep their names file apart from an installed
  // application's, in the "dev" folder.
  DaemonOptions options(std::move(root), std::move(feedPath), interval, PricingTable::defaultTable(),
                        std::move(scratchPath), kOdometerMinInterval, support + "/mac-ai-runs.json",
                        support + "/authority-last.json", claudeConfig + "/plan-usage-history.json",
                        support + "/closeout", support + "/dev/names.json");
  options.ostlerConfigPath = OstlerConfig::defaultPath(env);
  options.claudeConfigPath = ClaudeConfig::defaultPath(env);
  return options;
}

}  // namespace DaemonDefaults
}  // namespace ostler
