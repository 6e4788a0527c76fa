// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_UNIT_RUNELCTL_VARIABLE_H_
#define TESTS_UNIT_RUNELCTL_VARIABLE_H_

#include <cstdlib>
#include <optional>
#include <string>

namespace runelctl::test {

/// An environment variable with another value during a test.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) {
    const char* before = std::getenv(name);
    before_ = before == nullptr ? std::nullopt : std::make_optional<std::string>(before);
    setenv(name, value.c_str(), 1);
  }
  ~Variable() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const name_;
  std::optional<std::string> before_;
};

}  // namespace runelctl::test

#endif  // TESTS_UNIT_RUNELCTL_VARIABLE_H_
