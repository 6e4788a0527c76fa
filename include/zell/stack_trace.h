// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_STACK_TRACE_H_
#define ZELL_STACK_TRACE_H_

#include <string>

namespace zell {

struct StackTrace {
  /// The readable form of a type's mangled name (`typeid(x).name()`). Returns @p name itself when
  /// it is not a mangled name.
  static std::string demangle(const std::string& name);
};

}  // namespace zell

#endif  // ZELL_STACK_TRACE_H_
