// The paths and intervals given to every entry of the engine, and where they
// lie by default on this system.
#pragma once

#include <optional>
#include <string>

#include "transcript/pricing.h"

namespace ostler {

struct DaemonOptions {
  std::string root;         // transcript root directory
  std::string feedPath;     // file the feed is written to
  double interval = 1.0;    // seconds between ticks of the loop
  PricingTable pricing;     // rate table
  std::string scratchPath;  // the engine's saved state
  std::string macAiRunsPath;         // on-device model runs file
  std::string authorityStorePath;    // the last authoritative usage reading
  std::string planUsageHistoryPath;  // the plan usage history of Claude's desktop application
  std::string closeoutStorePath;     // closeout store base directory
  std::string namesPath;             // names file
  double odometerMinInterval = 45.0;  // least seconds between recomputes of the heavy figures
  // Files of others read for one key each; empty: not read.
  std::string ostlerConfigPath;  // Ostler's configuration, for the billing day
  std::string claudeConfigPath;  // Claude Code's, for why extra usage is off

  // An absent `scratchPath` becomes the default state file of `root`.
  DaemonOptions(std::string root, std::string feedPath, double interval, PricingTable pricing,
                std::optional<std::string> scratchPath, double odometerMinInterval, std::string macAiRunsPath,
                std::string authorityStorePath, std::string planUsageHistoryPath, std::string closeoutStorePath,
                std::string namesPath);
};

namespace DaemonDefaults {

inline constexpr const char* kFeedPath = "/tmp/ostler-feed.json";
inline constexpr double kInterval = 1.0;
inline constexpr double kOdometerMinInterval = 45.0;

// What the defaults are computed from: the user's home and the environment.
struct Environment {
  std::string home;
  std::optional<std::string> xdgDataHome;    // XDG_DATA_HOME
  std::optional<std::string> xdgConfigHome;  // XDG_CONFIG_HOME
  std::optional<std::string> ladderRoot;     // LADDER_ROOT
};

// The process's own environment.
[[nodiscard]] Environment fromProcess();

// "$XDG_DATA_HOME/Ostler", or "~/.local/share/Ostler" when that is unset or
// not absolute.
[[nodiscard]] std::string applicationSupportDirectory(const Environment& env);

// `LADDER_ROOT` when set and not empty, else "~/.claude/projects". A bare
// engine executable is never an installed application, so the development
// override always applies to it.
[[nodiscard]] std::string transcriptRoot(const Environment& env);

// Every path at its default, given the three values a caller chooses.
[[nodiscard]] DaemonOptions options(const Environment& env, std::string root, std::string feedPath, double interval,
                                    std::optional<std::string> scratchPath);

}  // namespace DaemonDefaults
}  // namespace ostler
