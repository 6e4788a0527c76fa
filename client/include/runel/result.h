// SPDX-License-Identifier: Apache-2.0
// A value or an error.
#ifndef RUNEL_RESULT_H_
#define RUNEL_RESULT_H_

#include <optional>
#include <utility>

#include <runel/error.h>

namespace runel {
inline namespace v1 {

/// The result of a call: test it, then read the value or the error.
template <typename Value>
class [[nodiscard]] Result {
 public:
  /// A success.
  Result(Value value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  /// A failure.
  Result(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  ///@{
  /// Whether it is a success.
  [[nodiscard]] bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  ///@}

  ///@{
  /// The value. Only when it is `ok`.
  [[nodiscard]] Value& operator*() & { return *value_; }
  [[nodiscard]] const Value& operator*() const& { return *value_; }
  [[nodiscard]] Value&& operator*() && { return *std::move(value_); }
  [[nodiscard]] Value* operator->() { return &*value_; }
  [[nodiscard]] const Value* operator->() const { return &*value_; }
  ///@}

  /// The reason of the failure. Only when it is not `ok`.
  [[nodiscard]] const Error& error() const { return *error_; }

 private:
  std::optional<Value> value_;
  std::optional<Error> error_;
};

/// The result of a call without a value.
template <>
class [[nodiscard]] Result<void> {
 public:
  /// A success.
  Result() = default;
  /// A failure.
  Result(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  ///@{
  /// Whether it is a success.
  [[nodiscard]] bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  ///@}
  /// The reason of the failure. Only when it is not `ok`.
  [[nodiscard]] const Error& error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_RESULT_H_
