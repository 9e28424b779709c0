#include "check_command.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "closeout/checks.h"
#include "closeout/closeout_document.h"
#include "closeout/file_existence.h"
#include "closeout/transcript_reader.h"
#include "closeout/verdict_text.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "transcript/text.h"

namespace ostler {
namespace {

constexpr int kUnreadable = 2;

int unreadable(const std::string& message) {
  std::cerr << "ostler: " << message << "\n";
  return kUnreadable;
}

// The text of `path`, which must be valid UTF-8.
Result<std::string> readText(FileSystem& fs, const std::string& path) {
  auto bytes = readWholeFile(fs, path);
  if (!bytes) return bytes.error();
  if (!text::isValidUtf8(bytes.value())) return fileError("cannot read", path, "not valid UTF-8");
  return bytes;
}

}  // namespace

CLI::App* addCheckCommand(CLI::App& app, CheckFlags& flags) {
  CLI::App* check = app.add_subcommand("check", "grade a handoff against the chat it came from");
  check->add_option("--handoff", flags.handoff, "the handoff, Markdown")->type_name("FILE")->required();
  check->add_option("--transcript", flags.transcript, "the chat's transcript, JSONL")->type_name("FILE")->required();
  check->add_option("--root", flags.root, "the project folder cited paths are taken against")
      ->type_name("DIR")
      ->required();
  check->add_option("--doc-updates", flags.docUpdates, "doc updates: a JSON list, or a closeout document")
      ->type_name("FILE");
  check->add_option("--c2-threshold", flags.c2Threshold, "files C2 needs named (default min(3, qualifying))")
      ->type_name("N");
  check->add_flag("--json", flags.json, "print the verdict as JSON");
  return check;
}

int runCheck(const CheckFlags& flags) {
  FileSystem& fs = systemFileSystem();
  CloseoutDocument document;
  auto handoff = readText(fs, flags.handoff);
  if (!handoff) return unreadable(handoff.error().message);
  document.handoff = std::move(handoff).value();
  auto lines = TranscriptReader::parseLines(fs, flags.transcript);
  if (!lines) return unreadable(lines.error().message);
  if (flags.docUpdates) {
    auto bytes = readWholeFile(fs, *flags.docUpdates);
    if (!bytes) return unreadable(bytes.error().message);
    auto updates = decodeDocUpdates(bytes.value());
    if (!updates) return unreadable("cannot read " + *flags.docUpdates + ": " + updates.error().message);
    document.doc_updates = std::move(updates).value();
  }

  const std::string home = environmentVariable("HOME").value_or("");
  FileSystemExistence fm(fs);
  const Checks::Verdict verdict = Checks::grade(document, flags.root, home, lines.value(), flags.c2Threshold, fm);
  if (flags.json) {
    auto json = verdict.encodedJSON(/*pretty=*/true);
    if (!json) return unreadable(json.error().message);
    std::cout << json.value() << "\n";
  } else {
    std::cout << renderVerdictText(verdict);
  }
  std::cout.flush();
  return verdict.overallPass ? 0 : 1;
}

}  // namespace ostler
