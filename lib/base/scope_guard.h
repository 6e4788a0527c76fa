// SPDX-License-Identifier: Apache-2.0
// Runs an action on every exit from a scope.
#ifndef ZELL_BASE_SCOPE_GUARD_H_
#define ZELL_BASE_SCOPE_GUARD_H_

#include <utility>

namespace zell {

/// Calls @p action when it goes out of scope, also during stack unwinding.
template <typename Action>
class ScopeGuard {
 public:
  explicit ScopeGuard(Action action) : action_(std::move(action)) {}
  ~ScopeGuard() { action_(); }
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;

 private:
  Action action_;
};

}  // namespace zell

#endif  // ZELL_BASE_SCOPE_GUARD_H_
