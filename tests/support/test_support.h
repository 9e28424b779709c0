// Helpers for tests that touch files: temporary folders, JSONL writers, and
// the shared fixtures that live beside the checkout.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "transcript/tree_reading.h"

namespace ostler::testing {

class FakeFileSystem;

// A fresh folder, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// Writes `contents` to `path`, making its parent folders.
void writeFile(const std::filesystem::path& path, const std::string& contents);
// Appends `contents` to `path`.
void appendFile(const std::filesystem::path& path, const std::string& contents);
// The lines joined by line feeds, with a final one.
[[nodiscard]] std::string jsonl(const std::vector<std::string>& lines);
[[nodiscard]] std::string readFile(const std::filesystem::path& path);
// The lines of `text`, without their line feeds; with `skipPrefix`, lines
// that begin with it are left out (a receipt's "Generated " line, which
// differs from run to run).
[[nodiscard]] std::vector<std::string> linesOf(const std::string& text, const std::string& skipPrefix = "");

// A fold that reads every line and keeps nothing: registered beside the
// meter, it makes the meter share its reading.
class IdleFold final : public TreeFold {
 public:
  std::unique_ptr<Slice> startSlice(const TranscriptFile&, const FileSlice&) override { return nullptr; }
  void foldSlice(const TranscriptFile&, const FileSlice&, std::unique_ptr<Slice>, const SliceEnd&) override {}
};

// Puts every file below `from`, on disk, into `fs` below `to`.
void copyTree(const std::filesystem::path& from, FakeFileSystem& fs, const std::string& to);

// The repository's own folder.
[[nodiscard]] std::filesystem::path sourceDir();

// The shared fixtures folder beside the checkout, and whether it is there.
[[nodiscard]] std::filesystem::path sharedDir();
[[nodiscard]] bool haveShared();

// Runs the transcript generator into `out`; false when it is not available
// or fails.
bool generateTree(const std::filesystem::path& out, const std::vector<std::string>& args);

// The sample tree copied to `root`, with what a reader must pass over
// beside it: FIFOs named like transcripts (in a project folder and among a
// chat's agents), a link to /dev/zero, a folder named `d.jsonl` and a file
// of one user line that no one may read. The count of those that this
// process cannot read (root may read the locked file).
int64_t makeHostileTree(const std::filesystem::path& root);

// `s` in single quotes, for a shell.
[[nodiscard]] std::string quoted(const std::string& s);

// How a run of the `ostler` program ended.
struct Outcome {
  int status = -1;  // the exit status; -1 when the process did not exit (a crash)
  std::string out, err;
};
// Runs `ostler` with `args` (already quoted for the shell), with `env`
// (assignments such as "HOME=...") before it.
[[nodiscard]] Outcome runOstler(const std::string& args, const std::string& env = "");

// Runs a shell command, capturing standard output; returns the exit status.
int runCommand(const std::string& command, std::string* output);

}  // namespace ostler::testing
