// The services the daemon loop drives beside the engine: the closeout
// scheduler, which digests quiet chats; the names file, which carries chat
// titles to the shell; and the harvest of on-device model runs. Each is
// reached through a small interface so that the loop runs the same with the
// full services or with the stand-ins below, which do what the loop needs
// on a machine that has none of them.
//
// All are called from the tick thread only.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "daemon/feed.h"
#include "meter/iso8601.h"

namespace ostler {

class LiveEngine;

class CloseoutScheduling {
 public:
  virtual ~CloseoutScheduling() = default;
  // A chat's top-level transcript grew; the scheduler decides whether its
  // digest is due.
  virtual void pollIfDue(const std::string& sessionId, const std::string& transcriptPath, InstantMs lastActivity,
                         InstantMs now) = 0;
};

// Without an on-device model nothing is ever digested.
class NoCloseoutScheduling final : public CloseoutScheduling {
 public:
  void pollIfDue(const std::string&, const std::string&, InstantMs, InstantMs) override {}
};

class NamesPublishing {
 public:
  virtual ~NamesPublishing() = default;
  // Writes the names of the engine's chats to `path` when they changed.
  virtual void writeIfChanged(const LiveEngine& engine, InstantMs now, const std::string& path) = 0;
};

// Publishes no names: the shell falls back to its own.
class NoNamesPublishing final : public NamesPublishing {
 public:
  void writeIfChanged(const LiveEngine&, InstantMs, const std::string&) override {}
};

class MacAiSessionsSource {
 public:
  virtual ~MacAiSessionsSource() = default;
  // Fills the history once, in the background.
  virtual void startBackfillIfNeeded(InstantMs now) = 0;
  // Harvests the newest runs when due, in the background.
  virtual void pollIfDue(InstantMs now) = 0;
  // The feed's figure, once a harvest has completed; nothing before.
  [[nodiscard]] virtual std::optional<FeedMacAiSessions> feedSessions(InstantMs now) = 0;
};

// A platform with no log of on-device model runs: the figure stays absent.
class NoMacAiSessions final : public MacAiSessionsSource {
 public:
  void startBackfillIfNeeded(InstantMs) override {}
  void pollIfDue(InstantMs) override {}
  [[nodiscard]] std::optional<FeedMacAiSessions> feedSessions(InstantMs) override { return std::nullopt; }
};

// Where the background recompute runs.
class BackgroundQueue {
 public:
  virtual ~BackgroundQueue() = default;
  // Starts `job` and returns at once.
  virtual void async(std::function<void()> job) = 0;
};

// Each job on a thread of its own, left to run: a process that ends while a
// job runs ends it (the job writes no file).
class DetachedThreadQueue final : public BackgroundQueue {
 public:
  void async(std::function<void()> job) override { std::thread(std::move(job)).detach(); }
};

}  // namespace ostler
