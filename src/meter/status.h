// Failures as values: a small Result for the few operations that can fail
// (reading a file the user named, decoding a record).
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace ostler {

struct Error {
  std::string message;
};

template <typename T>
class Result {
 public:
  Result(T value) : v_(std::move(value)) {}  // NOLINT: implicit by design
  Result(Error error) : v_(std::move(error)) {}  // NOLINT

  [[nodiscard]] bool ok() const { return v_.index() == 0; }
  explicit operator bool() const { return ok(); }
  [[nodiscard]] const T& value() const& { return std::get<0>(v_); }
  [[nodiscard]] T& value() & { return std::get<0>(v_); }
  [[nodiscard]] T&& value() && { return std::get<0>(std::move(v_)); }
  [[nodiscard]] const Error& error() const { return std::get<1>(v_); }

 private:
  std::variant<T, Error> v_;
};

}  // namespace ostler
