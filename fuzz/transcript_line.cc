// Transcript lines through the decoder, then through the meter's digest and
// the engine's, as each reader takes them. The input is split at line feeds,
// so whole transcripts serve as seeds; no reader may crash or overflow on
// any line.
#include <string>

#include "daemon/engine/live_line.h"
#include "fuzz_target.h"
#include "meter/meter_line.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/string_arena.h"

namespace {

void digestLine(std::string_view line) {
  using namespace ostler;
  // Unpadded, as a line read through a small buffer is handed over.
  TranscriptLineDecoder decoder;
  RawTranscriptLine raw;
  if (!decoder.decode(line, false, &raw)) return;

  if (decodes(raw, kMeterReading)) {
    FileDigest digest;
    appendDigestLine(raw, 1, digest);
    appendDigestLine(raw, 2, digest);  // the same request twice, as in a rewritten file
    finishDigest(digest);
    fuzz::require(digest.lines.size() == 2, "a decoded line is digested");
    (void)extractTypedShareText(raw);
  }
  if (decodes(raw, kEngineReading)) {
    StringArena arena;
    const LiveLine first = digestLiveLine(raw, arena);
    const LiveLine again = digestLiveLine(raw, arena, {}, &first);
    fuzz::require(first.type == again.type, "a line digests the same twice");
    (void)joinedBlockText(raw);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest = ostler::fuzz::asText(data, size);
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    digestLine(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return 0;
}
