// Failures as values: `Result<T>` holds a value or an `Error` saying what
// went wrong, in words fit to show a user ("cannot open PATH: reason").
// `Status` is the same for an operation that gives nothing back.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace ostler {

struct Error {
  std::string message;
  // For a file that could not be read or written: which, and why, so that a
  // caller can say it its own way.
  std::string path = {};
  std::string reason = {};
};

// "WHAT PATH: REASON", with the path and the reason kept apart too.
[[nodiscard]] inline Error fileError(std::string_view what, const std::string& path, std::string reason) {
  return Error{std::string(what) + " " + path + ": " + reason, path, std::move(reason)};
}

template <typename T>
class Result {
 public:
  Result(T value) : v_(std::move(value)) {}      // NOLINT: implicit by design
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

class Status {
 public:
  Status() = default;                                     // success
  Status(Error error) : error_(std::move(error)), ok_(false) {}  // NOLINT: implicit by design

  [[nodiscard]] bool ok() const { return ok_; }
  explicit operator bool() const { return ok_; }
  [[nodiscard]] const Error& error() const { return error_; }

 private:
  Error error_;
  bool ok_ = true;
};

}  // namespace ostler
