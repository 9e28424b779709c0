// A handoff graded against a chat: the input is the handoff, a NUL, then
// the chat's lines. The path tools see every citation a handoff can hold;
// a verdict is given whatever the texts, and reads back from its JSON.
#include <functional>
#include <string>

#include "closeout/checks.h"
#include "closeout/path_canon.h"
#include "closeout/transcript_reader.h"
#include "fuzz_target.h"
#include "transcript/text.h"

namespace {

// A disk on which a path is there, as a file or a folder, by its hash: the
// same answer every time, both answers often.
class HashedDisk final : public ostler::FileExistence {
 public:
  bool exists(const std::string& path) override { return std::hash<std::string>{}(path) % 3 != 0; }
  bool isDirectory(const std::string& path) override { return std::hash<std::string>{}(path) % 3 == 1; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostler;
  const std::string_view input = fuzz::asText(data, size);
  const size_t cut = input.find('\0');
  const std::string_view handoff = input.substr(0, cut);
  const std::string_view chat = cut == std::string_view::npos ? std::string_view() : input.substr(cut + 1);
  // Handoffs and chats are refused unless they are UTF-8, as the check
  // command refuses them.
  if (!text::isValidUtf8(handoff) || !text::isValidUtf8(chat)) return 0;

  for (const std::string& token : PathCanon::extractPathTokens(handoff)) {
    const std::string once = PathCanon::standardized(token);
    fuzz::require(PathCanon::standardized(once) == once, "standardisation is idempotent");
    (void)PathCanon::canonicalize(token, "/home/u/app", "/home/u");
    (void)PathCanon::tildeReattached(token, handoff);
    (void)Grounding::anchoredContains(chat, token);
  }
  (void)PathCanon::stripAnnotations(PathCanon::stripLineMarkers(handoff));

  CloseoutDocument document;
  document.handoff = std::string(handoff);
  document.doc_updates.push_back({std::string(handoff.substr(0, 64)), "why", "patch"});
  const std::vector<TranscriptLine> lines = TranscriptReader::parseLines(chat);
  HashedDisk disk;
  const Checks::Verdict verdict = Checks::grade(document, "/home/u/app", "/home/u", lines, std::nullopt, disk);
  const Checks::CheckResult results[] = {verdict.c1, verdict.c2, verdict.c3, verdict.c4};
  fuzz::require(verdict.overallPass == Checks::overallPass(results), "the verdict is its checks'");
  auto json = verdict.encodedJSON(true);
  fuzz::require(json.ok(), "a verdict has its JSON");
  auto back = Checks::Verdict::decode(json.value());
  fuzz::require(back.ok() && back.value() == verdict, "a verdict reads back from its JSON");
  return 0;
}
