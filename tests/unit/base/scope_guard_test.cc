// SPDX-License-Identifier: Apache-2.0
#include "base/scope_guard.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

TEST(ScopeGuardTest, ActsOnceAtTheEndOfTheScope) {
  int calls = 0;
  {
    const ScopeGuard guard([&calls] { ++calls; });
    EXPECT_EQ(calls, 0);
  }
  EXPECT_EQ(calls, 1);
}

TEST(ScopeGuardTest, ActsDuringAnException) {
  int calls = 0;
  const auto throwing = [&calls] {
    const ScopeGuard guard([&calls] { ++calls; });
    throw std::runtime_error("passes");
  };
  EXPECT_THROW(throwing(), std::runtime_error);
  EXPECT_EQ(calls, 1);
}

TEST(ScopeGuardTest, ActsAfterTheReturnValueIsComputed) {
  std::string text = "kept";
  const auto returning = [&text] {
    const ScopeGuard guard([&text] { text.clear(); });
    return text;
  };
  EXPECT_EQ(returning(), "kept");
  EXPECT_EQ(text, "");
}

TEST(ScopeGuardTest, ActsInReverseOrder) {
  std::string order;
  {
    const ScopeGuard first([&order] { order += "1"; });
    const ScopeGuard second([&order] { order += "2"; });
  }
  EXPECT_EQ(order, "21");
}

}  // namespace
}  // namespace zell::test
