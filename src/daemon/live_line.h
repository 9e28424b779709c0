// What the live engine and the window scan take from one decoded transcript
// line: the few figures their folds use, small enough to keep a whole tree's
// worth for a moment. Its strings live in an arena: a scratch one cleared
// line by line when a line is folded at once, a lasting one when lines are
// gathered ahead of the fold.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "daemon/daemon_raw_line.h"
#include "meter/iso8601.h"
#include "meter/pricing.h"
#include "meter/string_arena.h"

namespace ostler {

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

// A user line's images, counted and measured by another reader of the line.
struct CountedImages {
  int64_t count = 0;
  int64_t tokens = 0;
};

// Digests `raw`, copying its strings into `arena`; typed text is cut to
// kTypedTextScanCharacters. What `needs` leaves out stays empty. With
// `images` a user line's images are taken as counted there, not measured
// again (Base64 text runs to megabytes).
[[nodiscard]] LiveLine digestLiveLine(const DaemonRawLine& raw, StringArena& arena, LiveLineNeeds needs = {},
                                      const CountedImages* images = nullptr);

// Whether typed text surely names its chat: its first character is one of
// those the name keeps (not white space). False may still name it.
[[nodiscard]] bool surelyNamesChat(std::string_view typedText);

}  // namespace ostler
