// What every fuzz target defines, and the one way a target reports a broken
// property: abort, so that libFuzzer and the replay driver both see a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace ostler::fuzz {

inline std::string_view asText(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }

// Aborts with `what` when `holds` is false.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

}  // namespace ostler::fuzz
