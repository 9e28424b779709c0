// Writing the engine's own JSON files, which nothing but the engine reads:
// compact, keys in the order the writer gives them, strings escaped (and an
// odd path name's ill-formed UTF-8 repaired rather than failing the file),
// doubles in their shortest exact form with ".0" on a whole one so that they
// read back as doubles, instants as seconds since 2001. NaN and infinities,
// which JSON cannot hold, are written as null and so fail the next read.
//
// The text goes into one buffer through a cursor; given a sink, the buffer
// is handed to it whenever room runs short, so that megabytes of text are
// never held at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "transcript/iso8601.h"

namespace ostler {

class JsonWriter {
 public:
  // Takes a piece of text; false refuses it, and the rest is dropped.
  using Sink = std::function<bool(std::string_view piece)>;

  // `capacity` is a guess of the whole text's size (or, with a sink, the
  // size of the pieces handed to it).
  explicit JsonWriter(size_t capacity, const Sink* sink = nullptr) : bytes_(capacity, '\0'), sink_(sink) {}

  void string(std::string_view s);
  void integer(int64_t v);
  void number(double v);
  void boolean(bool v) { append(v ? std::string_view("true") : std::string_view("false")); }
  void instant(InstantMs t);
  void raw(char c) {
    *room(1) = c;
    ++used_;
  }

  // Keys: a literal of the writer's own, which needs no escaping, or a key
  // of the data (a file path) which does. `first` tells whether a comma
  // goes before it.
  void key(std::string_view literal, bool first);
  void dataKey(std::string_view text, bool first);

  // The text built, without a sink.
  [[nodiscard]] std::string take() &&;
  // With a sink: hands it the rest. Whether it took every piece.
  [[nodiscard]] bool finish();

 private:
  char* room(size_t n) {
    if (bytes_.size() - used_ < n) makeRoom(n);
    return bytes_.data() + used_;
  }
  void commit(const char* end) { used_ = static_cast<size_t>(end - bytes_.data()); }
  void append(std::string_view s);
  void appendEscaped(std::string_view s);
  void appendEscape(unsigned char c);
  void makeRoom(size_t n);
  void flush();

  std::string bytes_;
  size_t used_ = 0;
  const Sink* sink_;
  bool taken_ = true;
};

}  // namespace ostler
