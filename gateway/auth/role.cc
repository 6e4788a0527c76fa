// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/role.h"

namespace runelgw {

const char* nameOf(Role role) {
  switch (role) {
    case Role::viewer:
      return "viewer";
    case Role::deviceOperator:
      return "operator";
    case Role::admin:
      return "admin";
  }
  return "";
}

std::optional<Role> findRole(std::string_view name) {
  for (const Role role : {Role::viewer, Role::deviceOperator, Role::admin}) {
    if (name == nameOf(role)) {
      return role;
    }
  }
  return std::nullopt;
}

KindSet KindSet::of(Role role) {
  KindSet kinds;
  for (std::size_t kind = 0; kind < kTaskKinds; ++kind) {
    if (role != Role::viewer || static_cast<TaskKind>(kind) == TaskKind::look) {
      kinds.add(static_cast<TaskKind>(kind));
    }
  }
  return kinds;
}

std::vector<std::string> KindSet::names() const {
  std::vector<std::string> names;
  for (std::size_t kind = 0; kind < kTaskKinds; ++kind) {
    if (has(static_cast<TaskKind>(kind))) {
      names.emplace_back(nameOf(static_cast<TaskKind>(kind)));
    }
  }
  return names;
}

}  // namespace runelgw
