#include "prepare_command.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "closeout/closeout_engine.h"
#include "closeout/closeout_store.h"
#include "closeout/file_existence.h"
#include "closeout/model/local_model_settings.h"
#include "closeout/model/tier1_runner.h"
#include "closeout/transcript_reader.h"
#include "closeout/verdict_text.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "transcript/text.h"

namespace ostler {
namespace {

constexpr std::string_view kJsonlSuffix = ".jsonl";

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// The transcript SESSION names: a path as given, or SESSION.jsonl in one of
// the root's project folders (the first in name order).
std::optional<std::string> findTranscript(FileSystem& fs, const std::string& session, const std::string& root) {
  const auto isFile = [&fs](const std::string& path) {
    Result<FileInfo> info = fs.stat(path);
    return info && info.value().kind == FileKind::kRegular;
  };
  if (session.find('/') != std::string::npos || endsWith(session, kJsonlSuffix)) {
    return isFile(session) ? std::optional(session) : std::nullopt;
  }
  Result<std::vector<DirectoryEntry>> projects = listSorted(fs, root);
  if (!projects) return std::nullopt;
  for (const DirectoryEntry& project : projects.value()) {
    if (!project.isDirectory) continue;
    const std::string candidate = joinPath(joinPath(root, project.name), session + std::string(kJsonlSuffix));
    if (isFile(candidate)) return candidate;
  }
  return std::nullopt;
}

// The transcript's file name without ".jsonl": the store's session id.
std::string sessionIdOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (endsWith(name, kJsonlSuffix)) name.remove_suffix(kJsonlSuffix.size());
  return std::string(name);
}

std::string describeUnavailable(std::string_view reason) {
  if (reason == Tier1Availability::kModelNotReady) {
    return "the local model is not ready: the server does not answer or does not list the model";
  }
  return "the local model is not ready: " + std::string(reason);
}

// Says why no handoff was made, as the output form asks; exit status 1.
int noHandoff(const PrepareFlags& flags, const std::string& sessionId, const std::string& reason) {
  if (flags.json) {
    std::cout << nlohmann::json{{"session_id", sessionId}, {"reason", reason}}.dump(2) << "\n";
    std::cout.flush();
  } else {
    std::cerr << "ostler: " << reason << "\n";
  }
  return 1;
}

// The parsed transcript the checks grade against; text that is not valid
// UTF-8 is repaired rather than refused, as the summaries were made from it.
std::vector<TranscriptLine> transcriptLines(FileSystem& fs, const std::string& path) {
  Result<std::string> bytes = readWholeFile(fs, path);
  if (!bytes) return {};
  return TranscriptReader::parseLines(text::repairUtf8(bytes.value()));
}

std::function<void(const CloseoutEngine::Progress&)> terminalProgress() {
  if (!standardErrorIsTerminal()) return nullptr;
  return [](const CloseoutEngine::Progress& p) {
    std::fprintf(stderr, "\rsummarised %lld of %lld parts, %lld model calls   ",
                 static_cast<long long>(p.macroChunksDone), static_cast<long long>(p.macroChunksTotal),
                 static_cast<long long>(p.modelCalls));
    std::fflush(stderr);
  };
}

}  // namespace

CLI::App* addPrepareCommand(CLI::App& app, PrepareFlags& flags) {
  CLI::App* prepare = app.add_subcommand("prepare", "summarise a chat with the local model and print its handoff");
  prepare->add_option("SESSION", flags.session, "a session id, or a transcript's path")->required();
  prepare->add_option("--root", flags.root, "transcript root (default ~/.claude/projects)")->type_name("DIR");
  prepare->add_flag("--json", flags.json, "print one JSON object");
  return prepare;
}

int runPrepare(const PrepareFlags& flags) {
  FileSystem& fs = systemFileSystem();
  const std::optional<std::string> transcript = findTranscript(fs, flags.session, flags.root);
  if (!transcript)
    return noHandoff(flags, flags.session, "no transcript for " + flags.session + " under " + flags.root);
  const std::string sessionId = sessionIdOf(*transcript);
  const std::optional<std::string> root = CloseoutEngine::repoRoot(fs, *transcript);
  if (!root) return noHandoff(flags, sessionId, "the transcript names no working folder (cwd) in its first lines");

  const std::string home = environmentVariable("HOME").value_or("");
  Result<std::unique_ptr<Tier1Runner>> runner = Tier1RunnerFactory::runnerFromSettings(
      fs, LocalModelSettings::defaultPath(home, environmentVariable("XDG_CONFIG_HOME")));
  if (!runner) return noHandoff(flags, sessionId, runner.error().message);
  if (!runner.value()) return noHandoff(flags, sessionId, "no local model is configured");

  const std::string base = CloseoutStore::defaultBaseDirectory();
  CloseoutStoreState store = CloseoutStore::load(sessionId, base, fs).value_or(CloseoutStoreState::fresh(sessionId));
  const std::vector<TranscriptLine> lines = transcriptLines(fs, *transcript);
  FileSystemExistence fileExistence(fs);
  CloseoutEngine::Services services{*runner.value(), fs, fileExistence, home};
  services.onProgress = terminalProgress();
  CloseoutEngine::ClickOutcome outcome = CloseoutEngine::click(*transcript, std::move(store), *root, lines, services);
  if (services.onProgress) std::fprintf(stderr, "\r\033[K");

  switch (outcome.kind) {
    case CloseoutEngine::ClickOutcome::Kind::kNoTier1:
      return noHandoff(flags, sessionId, describeUnavailable(outcome.reason));
    case CloseoutEngine::ClickOutcome::Kind::kNoChunksYet:
      return noHandoff(flags, sessionId, "nothing to summarise yet");
    case CloseoutEngine::ClickOutcome::Kind::kFailed:
      return noHandoff(flags, sessionId, "no handoff could be made: " + outcome.reason);
    case CloseoutEngine::ClickOutcome::Kind::kSucceeded: break;
  }
  const CloseoutEngine::ClickResult& result = *outcome.result;
  // The handoff stands even when the store cannot be kept; the next run
  // then summarises the chat again.
  if (Status saved = CloseoutStore::save(result.store, base, fs); !saved.ok()) {
    std::cerr << "ostler: the summaries were not kept: " << saved.error().message << "\n";
  }
  const int64_t modelCalls = result.mapCallsMade + result.reduceCallsMade + result.handoffCallsMade;

  if (flags.json) {
    Result<std::string> document = result.document.encodedJSON(/*pretty=*/false);
    Result<std::string> verdict = result.verdict.encodedJSON(/*pretty=*/false);
    if (!document || !verdict) {
      return noHandoff(flags, sessionId, (!document ? document.error() : verdict.error()).message);
    }
    const nlohmann::json out = {
        {"session_id", sessionId},
        {"store", joinPath(CloseoutStore::directory(sessionId, base), "store.json")},
        {"model_calls", modelCalls},
        {"document", nlohmann::json::parse(document.value())},
        {"handoff", result.document.handoff},
        {"verdict", nlohmann::json::parse(verdict.value())},
    };
    std::cout << out.dump(2) << "\n";
  } else {
    std::cout << result.document.handoff << "\n\n" << renderVerdictText(result.verdict);
  }
  std::cout.flush();
  return 0;
}

}  // namespace ostler
