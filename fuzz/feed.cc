// The feed as a reader of it decodes any text. A feed that decodes encodes
// to a text that decodes to the same feed.
#include <string>

#include "daemon/feed/feed.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostler;
  auto feed = decodeFeedJSON(fuzz::asText(data, size));
  if (!feed) return 0;
  const std::string written = encodeFeedJSON(feed.value());
  auto again = decodeFeedJSON(written);
  fuzz::require(again.ok(), "a written feed reads");
  fuzz::require(encodeFeedJSON(again.value()) == written, "a feed reads back as it was written");
  return 0;
}
