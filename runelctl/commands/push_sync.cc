// SPDX-License-Identifier: Apache-2.0
// Finds the differences between a local tree and a tree on the device.
#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "commands/push_parts.h"

namespace runelctl {
namespace {

using Tree = std::map<std::string, const runel::TreeEntry*>;

// Removes the counterpart of @p entry from @p there. Returns nullptr if it is missing or has a
// different type.
const runel::TreeEntry* take(Tree& there, const LocalEntry& entry) {
  const auto found = there.find(entry.relative.empty() ? "." : entry.relative);
  if (found == there.end() || found->second->type != entry.type) {
    return nullptr;
  }
  const runel::TreeEntry* taken = found->second;
  there.erase(found);
  return taken;
}

bool sameContent(const LocalEntry& here, const runel::TreeEntry& there) {
  if (here.type == 'l') {
    return there.target == here.target;
  }
  return here.type == 'd' || (there.size == here.size && there.mtime == here.mtime.seconds);
}

}  // namespace

// The trailing dot follows a symbolic link to a directory.
void PushJob::lookAtTree() {
  ask(runel::Request({"walktree", root_ + "/."}),
      [this](const runel::Reply& reply) { compareTree(reply); });
}

void PushJob::compareTree(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const auto entries = runel::parseTree(reply.output());
  if (!entries || (!reply.ok() && reply.number() != ENOENT)) {
    fail(reply.ok() ? Error{Fault::protocol, "malformed directory tree", "", 0}
                    : reply.error(root_));
    return;
  }
  Tree there;
  for (const runel::TreeEntry& entry : *entries) {
    there[entry.path] = &entry;
  }
  const auto same = [&](const Item& item) {
    const runel::TreeEntry* entry = take(there, *item.entry);
    if (entry == nullptr || !sameContent(*item.entry, *entry)) {
      return false;
    }
    if (item.entry->type != 'l' && entry->mode != item.entry->mode) {
      modeOnly_.push_back(item);
    }
    skip(item.entry->size, item.target);
    return true;
  };
  std::size_t sent = 0;
  for (Items* list : {&small_, &big_, &links_, &directories_}) {
    list->erase(std::remove_if(list->begin(), list->end(), same), list->end());
    sent += list->size();
  }
  for (const auto& [path, entry] : there) {
    if (plan_->remove && path != "." && there.count(runel::directoryOf(path)) == 0) {
      others_.push_back(path);
    }
  }
  directoriesChanged_ = sent > 0 || !others_.empty();
  removeOthers();
}

void PushJob::removeOthers() {
  ProgramRuns run{{"rm", "-r", "-f", "--"}, {}};
  for (const std::string& path : others_) {
    run.names.push_back(runel::joinPath(root_, path));
  }
  runPrograms({run}, "files not removed", [this] { lookAtDirectories(); });
}

}  // namespace runelctl
