// What the live engine and the window scan take from one transcript line: the
// few figures their folds use, small enough to keep a whole tree's worth for
// a moment. Its strings live in an arena: a scratch one cleared line by line
// when a line is folded at once, a lasting one when lines are gathered ahead
// of the fold.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "transcript/iso8601.h"
#include "transcript/pricing.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/string_arena.h"

namespace ostler {

// The keys the live engine holds a line to: a wrong type at one of them
// fails the line (a parse skip). Its blocks are read only for images and
// for the text of a limit message; a block list in which one of these keys
// failed is read as no content.
inline constexpr LineReading kEngineReading = {
    {LineKey::kType, LineKey::kTimestamp, LineKey::kSessionId, LineKey::kCwd, LineKey::kMessage, LineKey::kModel,
     LineKey::kUsage, LineKey::kRequestId, LineKey::kError, LineKey::kAiTitle, LineKey::kCustomTitle,
     LineKey::kLastPrompt, LineKey::kIsApiErrorMessage},
    {BlockKey::kNotObject, BlockKey::kType, BlockKey::kText, BlockKey::kSource, BlockKey::kSourceData}};

struct LiveLine {
  enum class Type : uint8_t { kAbsent, kAssistant, kUser, kAiTitle, kCustomTitle, kOther };

  Type type = Type::kAbsent;
  std::string_view cwd;  // empty when absent
  // The timestamp, parsed: on assistant lines, and on user lines with images.
  std::optional<InstantMs> instant;

  // Assistant lines.
  std::string_view model;      // empty when absent
  TurnUsage usage;             // zeros without message or usage
  std::string_view requestId;  // empty when absent
  // A quota message (`isApiErrorMessage` true): the text of its blocks and
  // its timestamp as written, compared as text.
  bool isApiErrorMessage = false;
  std::string_view errorText;
  std::optional<std::string_view> timestampText;

  // User lines.
  int64_t imageCount = 0;
  int64_t imageTokens = 0;  // Base64 characters over four, image by image
  // The typed text when `content` is a string, at least as far as the chat's
  // name reads it (its first 4,000 characters).
  std::optional<std::string_view> typedText;

  // Title lines: `aiTitle` or `customTitle`, empty when absent.
  std::string_view title;
};

// How far into typed text a chat's name is looked for.
inline constexpr int64_t kTypedTextScanCharacters = 4000;

// What a reader still needs of a line beyond its figures: lines read after
// one that named the project, or that named the chat, need not carry
// `cwd` or `typedText` again.
struct LiveLineNeeds {
  bool cwd = true;
  bool typedText = true;
};

// Digests `raw`, a line that decodes for the engine, copying its strings
// into `arena`; typed text is cut to kTypedTextScanCharacters. What `needs`
// leaves out stays empty. With `previous`, an earlier line digested into the
// same arena, a model or request id equal to its own is shared, not copied:
// the lines of one request, and of one chat's model, come in runs.
[[nodiscard]] LiveLine digestLiveLine(const RawTranscriptLine& raw, StringArena& arena, LiveLineNeeds needs = {},
                                      const LiveLine* previous = nullptr);

// The `text` of the message's blocks, those without text left out, joined
// by one space; empty when the content is no list the engine reads.
[[nodiscard]] std::string joinedBlockText(const RawTranscriptLine& raw);

// Whether typed text surely names its chat: its first character is one of
// those the name keeps (not white space). False may still name it.
[[nodiscard]] bool surelyNamesChat(std::string_view typedText);

}  // namespace ostler
