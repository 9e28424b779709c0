#include "closeout/path_canon.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>

#include "closeout/code_points.h"
#include "transcript/text.h"

namespace ostler::PathCanon {
namespace {

// A numbered list marker. Compiled once per process; a RegexPattern may be
// shared by threads, each making its own matcher. `\d` is a decimal digit
// of any script and `\s` the White_Space property.
const icu::RegexPattern* numberedMarker() {
  static const icu::RegexPattern* compiled = [] {
    UErrorCode status = U_ZERO_ERROR;
    UParseError pe;
    icu::RegexPattern* p = icu::RegexPattern::compile(u"^\\d+[.)]\\s+", 0, pe, status);
    return U_SUCCESS(status) ? p : nullptr;
  }();
  return compiled;
}

// `text` without a leading numbered marker, when it has one.
std::string_view withoutNumberedMarker(std::string_view text, std::string& storage) {
  // An ASCII character other than a digit is never a decimal digit.
  if (text.empty() || (static_cast<unsigned char>(text[0]) < 0x80 && (text[0] < '0' || text[0] > '9'))) return text;
  const icu::RegexPattern* pattern = numberedMarker();
  if (pattern == nullptr) return text;
  const icu::UnicodeString input =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> m(pattern->matcher(input, status));
  if (U_FAILURE(status) || !m->lookingAt(status) || U_FAILURE(status)) return text;
  const int32_t end = m->end(status);
  if (U_FAILURE(status)) return text;
  storage.clear();
  input.tempSubString(end).toUTF8String(storage);
  return storage;
}

bool startsWithAny(std::string_view text, std::initializer_list<std::string_view> prefixes) {
  for (std::string_view p : prefixes)
    if (text.starts_with(p)) return true;
  return false;
}

}  // namespace

std::string stripLineMarkers(std::string_view text) {
  std::string_view s = text::trimSpacesAndTabs(text);
  if (startsWithAny(s, {"- ", "+ ", "* "})) s.remove_prefix(2);
  std::string storage;
  s = withoutNumberedMarker(s, storage);
  return std::string(text::trimSpacesAndTabs(s));
}

std::string stripAnnotations(std::string_view text) {
  std::string_view s = text::trimSpacesAndTabs(text);
  while (s.ends_with(')')) {
    // The "(" that the final ")" closes; the brackets are ASCII, so bytes do.
    size_t open = std::string_view::npos;
    int depth = 0;
    for (size_t i = s.size(); i-- > 0;) {
      if (s[i] == ')') ++depth;
      if (s[i] == '(' && --depth == 0) {
        open = i;
        break;
      }
    }
    if (open == std::string_view::npos) break;
    const std::string_view cut = text::trimSpacesAndTabs(s.substr(0, open));
    if (cut == s) break;
    s = cut;
  }
  if (const size_t colon = s.find(':'); colon != std::string_view::npos) s = s.substr(0, colon);
  return std::string(text::trimSpacesAndTabs(s));
}

std::string standardized(std::string_view path) {
  const bool absolute = path.starts_with('/');
  std::vector<std::string_view> parts;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t slash = path.find('/', begin);
    if (slash == std::string_view::npos) slash = path.size();
    const std::string_view part = path.substr(begin, slash - begin);
    begin = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty() && parts.back() != "..") {
        parts.pop_back();
        continue;
      }
      if (absolute) continue;  // above the root is the root
    }
    parts.push_back(part);
  }
  std::string out;
  for (std::string_view part : parts) {
    if (absolute || !out.empty()) out.push_back('/');
    out.append(part);
  }
  if (out.empty()) return absolute ? "/" : ".";
  return out;
}

std::optional<std::string> canonicalize(std::string_view path, std::string_view root, std::string_view home) {
  const std::string stripped = stripAnnotations(stripLineMarkers(path));
  std::string_view s = stripped;
  while (s.starts_with("./")) s.remove_prefix(2);
  s = text::trimSpacesAndTabs(s);
  if (s.empty() || s == "." || s == "/" || s == "~" || s.ends_with('/')) return std::nullopt;

  std::string expanded;
  if (s.starts_with("~/")) {
    expanded.append(home).append("/").append(s.substr(2));
  } else {
    expanded.assign(s);
  }
  if (expanded.starts_with('/')) return standardized(expanded);
  if (root.size() >= 2 && root.ends_with('/')) root.remove_suffix(1);
  if (root.empty()) return standardized(expanded);
  std::string joined(root);
  joined.append("/").append(expanded);
  return standardized(joined);
}

std::vector<std::string> extractPathTokens(std::string_view text) {
  std::vector<std::string> tokens;
  auto finish = [&](std::string_view run) {
    while (run.ends_with('.')) run.remove_suffix(1);
    // The last part that is not empty must hold a ".".
    std::string_view last = run;
    while (last.ends_with('/')) last.remove_suffix(1);
    if (const size_t slash = last.rfind('/'); slash != std::string_view::npos) last.remove_prefix(slash + 1);
    if (last.find('.') != std::string_view::npos) tokens.emplace_back(run);
  };
  size_t start = std::string_view::npos;
  for (size_t i = 0; i < text.size();) {
    const CodePoints::Decoded d = CodePoints::decodeAt(text, i);
    if (CodePoints::isPathCharacter(d.value)) {
      if (start == std::string_view::npos) start = i;
    } else if (start != std::string_view::npos) {
      finish(text.substr(start, i - start));
      start = std::string_view::npos;
    }
    i += d.length;
  }
  if (start != std::string_view::npos) finish(text.substr(start));
  return tokens;
}

std::string tildeReattached(std::string_view token, std::string_view text) {
  std::string withTilde = "~";
  withTilde.append(token);
  if (text.find(withTilde) != std::string_view::npos) return withTilde;
  return std::string(token);
}

std::set<std::string> canonicalTokenSet(std::string_view text, std::string_view root, std::string_view home) {
  std::set<std::string> out;
  for (const std::string& token : extractPathTokens(text))
    if (auto canonical = canonicalize(token, root, home)) out.insert(std::move(*canonical));
  return out;
}

}  // namespace ostler::PathCanon
