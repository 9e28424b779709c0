// For compilers without libFuzzer: runs a target over every file named on
// the command line, and every file in every folder named, once each. A crash
// on a known input still fails the build's tests this way.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

int replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return 1;
  }
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = 0;
  size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.starts_with("-")) continue;  // libFuzzer's flags mean nothing here
    std::error_code error;
    if (std::filesystem::is_directory(arg, error)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
      for (const auto& f : files) failures += replay(f), ++inputs;
    } else {
      failures += replay(arg);
      ++inputs;
    }
  }
  std::printf("replayed %zu inputs\n", inputs);
  if (inputs == 0) {
    std::fprintf(stderr, "usage: %s FILE_OR_FOLDER...\n", argv[0]);
    return 2;
  }
  return failures == 0 ? 0 : 1;
}
