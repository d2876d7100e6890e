#pragma once

#include <optional>
#include <string>
#include <utility>

// The third tier of error: what comes from packets, the kernel, a store or an operator is refused with a
// value that the caller handles. Everything that can be refused returns a Result, which is true when it was
// done:
//
//   Mox::Result<> open();
//   if (const auto opened = open(); !opened) report(opened.error());
//   return Mox::Failure{"adding link arpsnoop: File exists", EEXIST};

namespace Mox {

// Why something was refused.
struct Failure {
  // One line for people: what was being done to what, the value, and what is allowed or why it failed. No
  // newline at its end.
  std::string text;
  // The errno value (positive) where the kernel refused, otherwise 0.
  int number = 0;
};

// The value, or why there is none.
template <class Value = void>
class [[nodiscard]] Result {
 public:
  Result(Value value)
      : value_(std::move(value)) {}  // NOLINT: implicit, so that `return value;` reads as usual
  Result(Failure failure) : failure_(std::move(failure)) {}  // NOLINT

  explicit operator bool() const { return value_.has_value(); }
  // Only when it was done.
  Value& operator*() { return *value_; }
  const Value& operator*() const { return *value_; }
  Value* operator->() { return &*value_; }
  const Value* operator->() const { return &*value_; }
  // Only when it was refused; otherwise empty and 0.
  const Failure& failure() const { return failure_; }
  const std::string& error() const { return failure_.text; }
  int number() const { return failure_.number; }

 private:
  std::optional<Value> value_;
  Failure failure_;
};

// Done, or why not.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Failure failure) : failure_(std::move(failure)) {}  // NOLINT

  explicit operator bool() const { return !failure_; }
  const std::string& error() const { return failure().text; }
  int number() const { return failure().number; }
  const Failure& failure() const {
    static const Failure none;
    return failure_ ? *failure_ : none;
  }

 private:
  std::optional<Failure> failure_;
};

}  // namespace Mox
