// SPDX-License-Identifier: Apache-2.0
// The roles of tokens, and the kinds of task that each allows.
#ifndef RUNELGW_AUTH_ROLE_H_
#define RUNELGW_AUTH_ROLE_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/core/task_rules.h"

namespace runelgw {

/// Each role may do what the ones before it may.
enum class Role {
  viewer,          ///< sees devices and runs tasks of the kind "look"
  deviceOperator,  ///< runs tasks of all kinds
  admin,           ///< decides which devices and tokens there are
};

/// "viewer", "operator" or "admin".
[[nodiscard]] const char* nameOf(Role role);
/// The role that is called @p name.
[[nodiscard]] std::optional<Role> findRole(std::string_view name);

/// A set of kinds of task.
class KindSet {
 public:
  constexpr KindSet() = default;
  /// All kinds that @p role may have.
  [[nodiscard]] static KindSet of(Role role);

  constexpr void add(TaskKind kind) { bits_ |= bitOf(kind); }
  [[nodiscard]] constexpr bool has(TaskKind kind) const { return (bits_ & bitOf(kind)) != 0; }
  /// The kinds that both sets have.
  [[nodiscard]] constexpr KindSet with(KindSet other) const { return KindSet(bits_ & other.bits_); }
  [[nodiscard]] constexpr bool operator==(KindSet other) const { return bits_ == other.bits_; }
  /// Their names, in the order of `TaskKind`.
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  constexpr explicit KindSet(unsigned bits) : bits_(bits) {}
  [[nodiscard]] static constexpr unsigned bitOf(TaskKind kind) {
    return 1U << static_cast<unsigned>(kind);
  }

  unsigned bits_ = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_AUTH_ROLE_H_
