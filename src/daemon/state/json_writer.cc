#include "daemon/state/json_writer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "transcript/text.h"

namespace ostler {
namespace {

// What a byte of a string needs: 0 nothing, 1 an escape, 2 a UTF-8 check.
constexpr std::array<uint8_t, 256> kByteClass = [] {
  std::array<uint8_t, 256> c{};
  for (int b = 0; b < 0x20; ++b) c[b] = 1;
  c['"'] = 1;
  c['\\'] = 1;
  for (int b = 0x80; b < 0x100; ++b) c[b] = 2;
  return c;
}();

// True when none of the eight bytes at `p` needs attention (class 0 above).
bool isPlainWord(const unsigned char* p) {
  constexpr uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080;
  uint64_t w;
  std::memcpy(&w, p, 8);
  auto hasZeroByte = [](uint64_t x) { return ((x - kOnes) & ~x & kHighs) != 0; };
  const bool below20 = ((w - 0x20 * kOnes) & ~w & kHighs) != 0;
  return (w & kHighs) == 0 && !below20 && !hasZeroByte(w ^ ('"' * kOnes)) && !hasZeroByte(w ^ ('\\' * kOnes));
}

}  // namespace

void JsonWriter::append(std::string_view s) {
  std::memcpy(room(s.size()), s.data(), s.size());
  used_ += s.size();
}

void JsonWriter::appendEscape(unsigned char c) {
  switch (c) {
    case '"': append("\\\""); return;
    case '\\': append("\\\\"); return;
    case '\b': append("\\b"); return;
    case '\f': append("\\f"); return;
    case '\n': append("\\n"); return;
    case '\r': append("\\r"); return;
    case '\t': append("\\t"); return;
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      const char u[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      append(std::string_view(u, sizeof u));
    }
  }
}

// Runs of plain bytes are copied whole; at the first non-ASCII byte the rest
// is checked once, and repaired when it is not valid UTF-8.
void JsonWriter::appendEscaped(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t run = 0;
  bool checked = false;
  for (size_t i = 0; i < s.size(); ++i) {
    // Eight plain bytes at a time: most strings are ids and paths of such bytes.
    while (i + 8 <= s.size() && isPlainWord(p + i)) i += 8;
    if (i == s.size()) break;
    const uint8_t kind = kByteClass[p[i]];
    if (kind == 0) continue;
    if (kind == 2) {
      if (!checked && !text::isValidUtf8(s.substr(i))) {
        append(s.substr(run, i - run));
        appendEscaped(text::repairUtf8(s.substr(i)));
        return;
      }
      checked = true;
      continue;
    }
    append(s.substr(run, i - run));
    appendEscape(p[i]);
    run = i + 1;
  }
  append(s.substr(run));
}

void JsonWriter::string(std::string_view s) {
  raw('"');
  appendEscaped(s);
  raw('"');
}

void JsonWriter::integer(int64_t v) {
  char* p = room(24);
  commit(std::to_chars(p, p + 24, v).ptr);
}

void JsonWriter::number(double v) {
  if (!std::isfinite(v)) {
    append("null");
    return;
  }
  char* p = room(40);
  char* end = std::to_chars(p, p + 32, v).ptr;
  if (std::find_if(p, end, [](char c) { return c == '.' || c == 'e'; }) == end) {
    *end++ = '.';
    *end++ = '0';
  }
  commit(end);
}

// Instants are whole milliseconds, so the double of the seconds is the one
// nearest to the decimal "seconds.mmm", and writing that decimal from the
// integer gives the same number as formatting the double, at a fraction of
// the cost.
void JsonWriter::instant(InstantMs t) {
  const int64_t ms = t - ReferenceSeconds::kEpochMs;
  constexpr int64_t kExact = int64_t(1) << 53;  // the double of every count below is exact
  if (ms <= -kExact || ms >= kExact) {
    number(ReferenceSeconds::of(t));
    return;
  }
  const uint64_t magnitude = static_cast<uint64_t>(ms < 0 ? -ms : ms);
  char* p = room(32);
  if (ms < 0) *p++ = '-';
  p = std::to_chars(p, p + 24, magnitude / 1000).ptr;
  *p++ = '.';
  const auto fraction = static_cast<unsigned>(magnitude % 1000);
  *p++ = static_cast<char>('0' + fraction / 100);
  if (fraction % 100 != 0) {
    *p++ = static_cast<char>('0' + fraction / 10 % 10);
    if (fraction % 10 != 0) *p++ = static_cast<char>('0' + fraction % 10);
  }
  commit(p);
}

void JsonWriter::key(std::string_view literal, bool first) {
  char* p = room(literal.size() + 4);
  if (!first) *p++ = ',';
  *p++ = '"';
  std::memcpy(p, literal.data(), literal.size());
  p += literal.size();
  *p++ = '"';
  *p++ = ':';
  commit(p);
}

void JsonWriter::dataKey(std::string_view text, bool first) {
  if (!first) raw(',');
  string(text);
  raw(':');
}

void JsonWriter::makeRoom(size_t n) {
  if (sink_ != nullptr) {
    flush();
    if (bytes_.size() >= n) return;
  }
  bytes_.resize(std::max(2 * bytes_.size(), used_ + n));
}

void JsonWriter::flush() {
  // After a refused piece the rest is dropped: the file is lost anyway.
  if (used_ > 0 && taken_) taken_ = (*sink_)(std::string_view(bytes_.data(), used_));
  used_ = 0;
}

std::string JsonWriter::take() && {
  bytes_.resize(used_);
  return std::move(bytes_);
}

bool JsonWriter::finish() {
  flush();
  return taken_;
}

}  // namespace ostler
