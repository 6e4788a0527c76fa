// SPDX-License-Identifier: Apache-2.0
#include "commands/change_text.h"

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

constexpr std::size_t kActionColumns = 12;

const char* actionName(runel::TransferChange::Action action) {
  using Action = runel::TransferChange::Action;
  switch (action) {
    case Action::create:
      return "create";
    case Action::replace:
      return "replace";
    case Action::remove:
      return "remove";
    case Action::attributes:
      break;
  }
  return "attributes";
}

bool hasSize(const runel::TransferChange& change) {
  return change.type == '-' && change.action != runel::TransferChange::Action::attributes;
}

}  // namespace

std::string changeLine(const runel::TransferChange& change, const Style& style) {
  std::string line = actionName(change.action);
  line.resize(kActionColumns, ' ');
  line += style.name(change.path);
  if (change.type == 'd') {
    line += change.path.empty() || change.path.back() == '/' ? "" : "/";
  } else if (change.type == 'l') {
    line += " -> " + style.name(change.target);
  } else if (hasSize(change)) {
    line += "  " + sizeText(change.size);
  }
  return line + (change.oldSize ? " (old: " + sizeText(*change.oldSize) + ")" : "");
}

Json changeObject(const runel::TransferChange& change) {
  Json object{{"entry", "change"}};
  object["action"] = actionName(change.action);
  object["type"] = std::string(1, change.type);
  putBytes(object, "path", change.path);
  if (change.type == 'l') {
    putBytes(object, "target", change.target);
  }
  if (hasSize(change)) {
    object["size"] = change.size;
  }
  if (change.oldSize) {
    object["old_size"] = *change.oldSize;
  }
  return object;
}

}  // namespace runelctl
