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
#include "daemon/state/persisted_state.h"
#include "platform/file_system.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/threads.h"

namespace {

constexpr int kUsageError = 2;
constexpr size_t kEngineStackBytes = 8 << 20;

// The folder a file is written into: "." for a bare name.
std::string parentFolder(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A stop asked for by SIGINT or SIGTERM.
class SignalShutdownSource final : public ostler::ShutdownSignalSource {
 public:
  [[nodiscard]] bool isRequested() const override { return ostler::stopSignalReceived(); }
  bool waitUnlessRequested(double seconds) const override { return ostler::waitForStopSignal(seconds); }
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

  if (root.empty()) {
    std::cerr << "ostlerd: --root must name a folder\n";
    return kUsageError;
  }
  // A feed that could never be written is a mistake to say now, not a
  // failure to retry every second.
  const std::string feedFolder = parentFolder(feed);
  if (ostler::FileSystem& fs = ostler::systemFileSystem(); !ostler::isDirectory(fs, feedFolder)) {
    std::cerr << "ostlerd: no folder " << feedFolder << " for the feed " << feed << "\n";
    return 1;
  } else if (ostler::isDirectory(fs, feed)) {
    std::cerr << "ostlerd: the feed " << feed << " is a folder\n";
    return 1;
  }

  ostler::DaemonOptions options = ostler::DaemonDefaults::options(env, root, feed, interval, state);
  if (!state) {
    // The shared default folder must be ours alone; otherwise the state is
    // kept in memory only, and a restart starts cold.
    if (ostler::Status mine = ostler::makePrivateDirectory(ostler::PersistedStateIO::kScratchDirectory); !mine) {
      std::cerr << "ostlerd: " << mine.error().message << "; the engine's state is kept in memory only\n";
      options.scratchPath.clear();
    }
  }
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
