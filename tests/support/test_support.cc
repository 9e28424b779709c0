#include "support/test_support.h"

#include "support/fake_file_system.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace ostler::testing {

TempDir::TempDir() {
  std::string templ = (std::filesystem::temp_directory_path() / "ostler-test-XXXXXX").string();
  char* made = mkdtemp(templ.data());
  path_ = made != nullptr ? std::filesystem::path(made) : std::filesystem::path(templ);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::filesystem::path& path, const std::string& contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

void appendFile(const std::filesystem::path& path, const std::string& contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::app);
  out << contents;
}

std::string jsonl(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> linesOf(const std::string& text, const std::string& skipPrefix) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (skipPrefix.empty() || line.rfind(skipPrefix, 0) != 0) out.push_back(line);
  return out;
}

void copyTree(const std::filesystem::path& from, FakeFileSystem& fs, const std::string& to) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(from))
    if (entry.is_regular_file())
      fs.put(to + "/" + entry.path().lexically_relative(from).string(), readFile(entry.path()));
}

std::filesystem::path sourceDir() { return std::filesystem::path(OSTLER_SOURCE_DIR); }

std::filesystem::path sharedDir() { return std::filesystem::path(OSTLER_SHARED_DIR); }

bool haveShared() { return std::filesystem::is_directory(sharedDir()); }

int runCommand(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::array<char, 65536> buf;
  size_t n;
  while ((n = fread(buf.data(), 1, buf.size(), pipe)) > 0)
    if (output != nullptr) output->append(buf.data(), n);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int64_t makeHostileTree(const std::filesystem::path& root) {
  namespace fs = std::filesystem;
  fs::copy(sourceDir() / "samples" / "projects", root, fs::copy_options::recursive);
  const fs::path project = root / "-home-ana-code-infra";
  fs::create_directories(project / "s" / "subagents");
  ::mkfifo((project / "x.jsonl").c_str(), 0644);
  ::mkfifo((project / "s" / "subagents" / "agent-x.jsonl").c_str(), 0644);
  fs::create_symlink("/dev/zero", project / "y.jsonl");
  fs::create_directories(project / "d.jsonl");
  writeFile(project / "locked.jsonl",
            R"({"type":"user","timestamp":"2026-11-01T10:00:00Z","message":{"role":"user","content":"hi"}})"
            "\n");
  fs::permissions(project / "locked.jsonl", fs::perms::none);
  return ::geteuid() == 0 ? 4 : 5;
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

Outcome runOstler(const std::string& args, const std::string& env) {
  TempDir dir;
  const auto out = dir.path() / "out", err = dir.path() / "err";
  Outcome o;
  o.status = runCommand(
      env + " '" OSTLER_BIN_DIR "/ostler' " + args + " >" + quoted(out.string()) + " 2>" + quoted(err.string()),
      nullptr);
  o.out = readFile(out);
  o.err = readFile(err);
  return o;
}

bool generateTree(const std::filesystem::path& out, const std::vector<std::string>& args) {
  auto tool = sharedDir() / "tools" / "gen-transcripts";
  if (!std::filesystem::exists(tool)) return false;
  std::string cmd;
  cmd.append("'").append(tool.string()).append("' --out '").append(out.string()).append("'");
  for (const auto& a : args) cmd += " " + a;
  cmd += " >/dev/null 2>&1";
  return runCommand(cmd, nullptr) == 0;
}

}  // namespace ostler::testing
