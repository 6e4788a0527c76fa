// SPDX-License-Identifier: Apache-2.0
#include <zell/stack_trace.h>

#include <cstdlib>
#include <memory>

#include <cxxabi.h>

namespace zell {

std::string StackTrace::demangle(const std::string& name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 && readable != nullptr ? std::string(readable.get()) : name;
}

}  // namespace zell
