// SPDX-License-Identifier: Apache-2.0
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include <zell/stack_trace.h>

namespace zell {
namespace {

TEST(StackTraceTest, MakesATypesNameReadable) {
  EXPECT_EQ(StackTrace::demangle(typeid(std::runtime_error).name()), "std::runtime_error");
  EXPECT_EQ(StackTrace::demangle(typeid(StackTrace).name()), "zell::StackTrace");
}

TEST(StackTraceTest, ReturnsAnyOtherTextUnchanged) {
  for (const std::string text : {"", "not mangled", "_Z", "\xff", "std::runtime_error"}) {
    EXPECT_EQ(StackTrace::demangle(text), text);
  }
}

}  // namespace
}  // namespace zell
