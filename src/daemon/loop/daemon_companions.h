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
#include <stop_token>

#include "platform/threads.h"

#include "daemon/feed/feed.h"
#include "transcript/iso8601.h"

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
  // Starts `job` and returns at once. The job looks at its stop token as it
  // goes and ends early once a stop is requested.
  virtual void async(std::function<void(std::stop_token)> job) = 0;
  // Asks a running job to stop and waits for it to end.
  virtual void stopAndWait() = 0;
};

// One job at a time, each on a thread of the queue's own: starting a job
// waits for the one before (the loop starts one only after the last has
// finished), and the queue never lets a thread outlive it.
class ThreadQueue final : public BackgroundQueue {
 public:
  ThreadQueue() = default;
  ~ThreadQueue() override { stopAndWait(); }
  ThreadQueue(const ThreadQueue&) = delete;
  ThreadQueue& operator=(const ThreadQueue&) = delete;

  void async(std::function<void(std::stop_token)> job) override;
  void stopAndWait() override;

 private:
  std::stop_source stop_;
  std::optional<Thread> running_;
};

}  // namespace ostler
