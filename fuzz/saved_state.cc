// The engine's saved state read from any text. What reads must write back
// to a text that reads to the same state: the written form is a fixed point.
#include <string>

#include "daemon/state/persisted_state_codec.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostler;
  // The seeds are states of this root.
  const std::string root = "/r";
  auto state = PersistedStateCodec::decode(fuzz::asText(data, size), root);
  if (!state) return 0;
  const std::string written = PersistedStateCodec::encode(*state);
  auto again = PersistedStateCodec::decode(written, root);
  fuzz::require(again.has_value(), "a written state reads");
  fuzz::require(PersistedStateCodec::encode(*again) == written, "a state reads back as it was written");
  return 0;
}
