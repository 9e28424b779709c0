// ostler: meters what Claude Code chats cost.
//
//   ostler receipt [--root DIR] [--since DATE] [--until DATE]
//                  [--since-instant ISO] [--until-instant ISO]
//                  [--json] [--loops FILE]
//   ostler feed [--feed PATH]
//   ostler check --handoff FILE --transcript FILE --root DIR
//                [--doc-updates FILE] [--c2-threshold N] [--json]
//   ostler prepare SESSION [--root DIR] [--json]
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "check_command.h"
#include "prepare_command.h"
#include "transcript/iso8601.h"
#include "meter/loop_detail.h"
#include "meter/meter_engine.h"
#include "meter/plain_text_receipt.h"
#include "platform/clock.h"
#include "platform/file_system.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "transcript/session_discovery.h"

namespace {

constexpr int kUsageError = 2;
// Where the engine publishes its feed, and how old a feed may be while an
// engine still writes it (it writes once a second).
constexpr const char* kDefaultFeedPath = "/tmp/ostler-feed.json";
constexpr double kFeedFreshSeconds = 3.0;

std::string defaultRoot() { return ostler::environmentVariable("HOME").value_or("") + "/.claude/projects"; }

// Progress on a terminal: files read of the total, then tokens metered.
ostler::ProgressCallback terminalProgress() {
  if (!ostler::standardErrorIsTerminal()) return nullptr;
  return [](const ostler::MeterProgress& p) {
    if (p.tokensMetered == 0)
      std::fprintf(stderr, "\rreading %lld of %lld files   ", static_cast<long long>(p.filesProcessed),
                   static_cast<long long>(p.totalFiles));
    else
      std::fprintf(stderr, "\rmetering %lld files: %lld tokens   ", static_cast<long long>(p.totalFiles),
                   static_cast<long long>(p.tokensMetered));
    std::fflush(stderr);
  };
}

struct ReceiptFlags {
  std::string root;
  std::optional<std::string> since, until, sinceInstant, untilInstant, loops;
  bool json = false;
  bool rootGiven = false;  // named on the command line rather than the default
};

int usageError(const CLI::App& app, const std::string& message) {
  std::cerr << "ostler: " << message << "\n" << app.help();
  return kUsageError;
}

int runReceipt(const ReceiptFlags& flags, const CLI::App& command) {
  for (const auto* date : {&flags.since, &flags.until})
    if (*date && !ostler::ISO8601::isCalendarDate(**date))
      return usageError(command, fmt::format("not a date (YYYY-MM-DD): {}", **date));
  for (const auto* instant : {&flags.sinceInstant, &flags.untilInstant})
    if (*instant && !ostler::isValidInstant(**instant))
      return usageError(command, fmt::format("not an ISO 8601 instant: {}", **instant));

  if (flags.since && flags.until && *flags.since > *flags.until)
    return usageError(command, fmt::format("--since {} is after --until {}", *flags.since, *flags.until));
  if (flags.sinceInstant && flags.untilInstant &&
      *ostler::ISO8601::parse(*flags.sinceInstant) > *ostler::ISO8601::parse(*flags.untilInstant))
    return usageError(command,
                      fmt::format("--since-instant {} is after --until-instant {}", *flags.sinceInstant, *flags.untilInstant));
  if (flags.root.empty()) return usageError(command, "--root must name a folder");

  // The default root missing or empty is said in one line, and its receipt
  // (all zeros) is still printed: a script reading the output gets a
  // receipt. A root asked for by name must be there.
  ostler::FileSystem& fs = ostler::systemFileSystem();
  auto rootInfo = fs.stat(flags.root);
  if (rootInfo && rootInfo.value().kind != ostler::FileKind::kDirectory)
    return usageError(command, fmt::format("--root {} is not a folder", flags.root));
  if (!rootInfo && flags.rootGiven) {
    std::cerr << "ostler: no transcript folder at " << flags.root << "\n";
    return 1;
  }
  if (rootInfo) {
    if (auto listed = fs.list(flags.root); !listed) {
      std::cerr << "ostler: " << listed.error().message << "\n";
      return 1;
    }
  }
  if (!flags.rootGiven && (!rootInfo || ostler::SessionDiscovery::discoverFiles(fs, flags.root).empty()))
    std::cerr << "ostler: no transcripts under " << flags.root << "; try the sample: ostler receipt --root "
              << OSTLER_SAMPLE_ROOT << "\n";

  ostler::MeterOptions options;
  options.root = flags.root;
  options.since = flags.since;
  options.until = flags.until;
  options.sinceInstant = flags.sinceInstant;
  options.untilInstant = flags.untilInstant;
  auto progress = terminalProgress();
  ostler::MeterRun run = ostler::MeterEngine::runWithLoopDetail(fs, options, progress);
  if (progress) std::fprintf(stderr, "\r\033[K");
  // Files that could not be read are left out of the receipt, which says
  // nothing of them; the user hears of them here.
  if (run.unreadable.first) std::cerr << "ostler: " << ostler::describe(run.unreadable) << "\n";

  if (flags.loops) {
    auto written = ostler::writeWholeFile(fs, *flags.loops, ostler::encodeLoopDetailJSON(run.loopDetail), 0644);
    if (!written) {
      std::cerr << "ostler: " << written.error().message << "\n";
      return 1;
    }
  }
  if (flags.json) {
    std::cout << ostler::encodeReceiptJSON(run.receipt);
  } else {
    std::cout << ostler::renderPlainTextReceipt(run.receipt);
    // The receipt ends without a line feed; a terminal still gets one.
    if (ostler::standardOutputIsTerminal()) std::cout << "\n";
  }
  std::cout.flush();
  return 0;
}

// Prints the feed an engine is writing, as it stands.
int runFeed(const std::string& path) {
  ostler::FileSystem& fs = ostler::systemFileSystem();
  auto info = fs.stat(path);
  if (!info) {
    std::cerr << "ostler: no engine is writing a feed (nothing at " << path << ")\n";
    return 1;
  }
  const double age =
      static_cast<double>(ostler::systemClock().nowMs()) / 1000.0 - static_cast<double>(info.value().modifiedNs) / 1e9;
  if (age >= kFeedFreshSeconds) {
    std::cerr << fmt::format("ostler: no engine is writing a feed ({} was last written {:.0f} s ago)\n", path, age);
    return 1;
  }
  auto text = ostler::readWholeFile(fs, path);
  if (!text) {
    std::cerr << "ostler: " << text.error().message << "\n";
    return 1;
  }
  std::cout << text.value();
  std::cout.flush();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ostler::keepFreedMemoryForReuse();
  CLI::App app{"ostler: what your Claude Code chats cost"};
  app.require_subcommand(1);
  ReceiptFlags flags;
  flags.root = defaultRoot();
  CLI::App* receipt = app.add_subcommand("receipt", "price every request of a transcript tree");
  receipt->add_option("--root", flags.root, "transcript root (default ~/.claude/projects)")->type_name("DIR");
  receipt->add_option("--since", flags.since, "first day, inclusive")->type_name("YYYY-MM-DD");
  receipt->add_option("--until", flags.until, "last day, inclusive")->type_name("YYYY-MM-DD");
  receipt->add_option("--since-instant", flags.sinceInstant, "lower bound, inclusive")->type_name("ISO8601");
  receipt->add_option("--until-instant", flags.untilInstant, "upper bound, exclusive")->type_name("ISO8601");
  receipt->add_flag("--json", flags.json, "print the receipt as JSON");
  receipt->add_option("--loops", flags.loops, "write the media loop detail as JSON")->type_name("FILE");
  std::string feedPath = kDefaultFeedPath;
  CLI::App* feed = app.add_subcommand("feed", "print the feed the engine is writing");
  feed->add_option("--feed", feedPath, "feed file (default /tmp/ostler-feed.json)")->type_name("PATH");
  ostler::CheckFlags checkFlags;
  CLI::App* check = ostler::addCheckCommand(app, checkFlags);
  ostler::PrepareFlags prepareFlags;
  prepareFlags.root = defaultRoot();
  CLI::App* prepare = ostler::addPrepareCommand(app, prepareFlags);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    if (check->parsed()) {  // a check is often scripted: its usage errors take one line
      std::cerr << "ostler: " << e.what() << "\n";
      return kUsageError;
    }
    const CLI::App& shown = receipt->parsed()  ? *receipt
                            : feed->parsed()   ? *feed
                            : prepare->parsed() ? *prepare
                                                : app;
    std::cerr << "ostler: " << e.what() << "\n" << shown.help();
    return kUsageError;
  }
  if (receipt->parsed()) {
    flags.rootGiven = receipt->count("--root") > 0;
    return runReceipt(flags, *receipt);
  }
  if (feed->parsed()) return runFeed(feedPath);
  if (check->parsed()) return ostler::runCheck(checkFlags);
  if (prepare->parsed()) return ostler::runPrepare(prepareFlags);
  return kUsageError;
}
