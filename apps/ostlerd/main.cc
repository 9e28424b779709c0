// ostlerd: the live engine on its own. Follows the Claude Code transcripts
// and publishes the feed file once a second until SIGINT or SIGTERM, then
// saves its state and exits 0.
//
//   ostlerd [--root DIR] [--feed PATH] [--interval SECONDS] [--state FILE]
#include <cmath>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "daemon/engine/shutdown_signal_source.h"
#include "daemon/loop/daemon.h"
#include "daemon/loop/daemon_options.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/threads.h"

namespace {

constexpr int kUsageError = 2;
constexpr size_t kEngineStackBytes = 8 << 20;

// A stop asked for by SIGINT or SIGTERM.
class SignalShutdownSource final : public ostler::ShutdownSignalSource {
 public:
  [[nodiscard]] bool isRequested() const override { return ostler::stopSignalReceived(); }
};

}  // namespace

int main(int argc, char** argv) {
  ostler::keepFreedMemoryForReuse();
  const ostler::DaemonDefaults::Environment env = ostler::DaemonDefaults::fromProcess();
  std::string root = ostler::DaemonDefaults::transcriptRoot(env);
  std::string feed = ostler::DaemonDefaults::kFeedPath;
  double interval = ostler::DaemonDefaults::kInterval;
  std::optional<std::string> state;

  CLI::App app{"ostlerd: follows your Claude Code transcripts and publishes the feed"};
  app.add_option("--root", root, "transcript root (default $LADDER_ROOT or ~/.claude/projects)")->type_name("DIR");
  app.add_option("--feed", feed, "feed file (default /tmp/ostler-feed.json)")->type_name("PATH");
  app.add_option("--interval", interval, "seconds between polls (default 1)")->type_name("SECONDS");
  app.add_option("--state", state, "saved engine state (default one file per root under /tmp/ladder-daemon-scratch)")
      ->type_name("FILE");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "ostlerd: " << e.what() << "\n";
    return kUsageError;
  }
  if (!(interval > 0) || !std::isfinite(interval)) {
    std::cerr << "ostlerd: --interval must be a number of seconds above 0\n";
    return kUsageError;
  }

  const ostler::DaemonOptions options = ostler::DaemonDefaults::options(env, root, feed, interval, state);
  ostler::catchStopSignals();
  SignalShutdownSource shutdownSignal;
  ostler::Daemon::SystemServices services;
  int status = 0;
  // The engine's loop on a thread of its own, with a stack of known size;
  // when it returns, every thread it started has been joined.
  ostler::Thread engine("ostler.engine", [&] { status = ostler::Daemon::runForever(options, shutdownSignal, services.services()); },
                        kEngineStackBytes);
  if (!engine.started()) {
    std::cerr << "ostlerd: cannot start the engine thread\n";
    return 1;
  }
  engine.join();
  return status;
}
