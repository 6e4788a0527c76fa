// SPDX-License-Identifier: Apache-2.0
#include "relay.h"

#include <algorithm>

#include <sys/uio.h>
#include <unistd.h>

namespace zell::bench {

void RelayFloor::receive(int fd, std::string_view bytes) {
  if (agent_ < 0) {
    agent_ = fd;
    wantMaster();
  }
  waiting_.append(bytes);
  if (bridge_ >= 0) {
    relayAll();
  }
}

void RelayFloor::forget(int fd) {
  if (fd == agent_) {
    agent_ = -1;
  }
}

// The first connection carries tasks, the second one clauses.
void RelayFloor::connected(int fd) {
  if (!hasSlave_) {
    hasSlave_ = true;
    return;
  }
  bridge_ = fd;
  relayAll();
}

void RelayFloor::relayAll() {
  char lineEnd[] = "\r\n";
  while (findEnd()) {
    const iovec parts[] = {{waiting_.data() + start_, end_ - start_}, {lineEnd, 2}};
    (void)writev(bridge_, parts, 2);
    start_ = end_;
    closing_.clear();
  }
  if (start_ == waiting_.size()) {
    waiting_.clear();
  } else if (start_ > waiting_.size() / 2) {
    waiting_.erase(0, start_);
  } else {
    return;
  }
  searched_ -= std::min(searched_, start_);
  start_ = 0;
}

bool RelayFloor::findEnd() {
  if (closing_.empty()) {
    start_ = std::min(waiting_.find_first_not_of(" \t\r\n", start_), waiting_.size());
    const std::size_t gt = waiting_.find('>', start_);
    if (gt == std::string::npos) {
      return false;
    }
    if (waiting_[gt - 1] == '/') {
      end_ = gt + 1;
      return true;
    }
    closing_ = "</" + waiting_.substr(start_ + 1, gt - start_);
    searched_ = gt;
  }
  const std::size_t found = waiting_.find(closing_, searched_);
  if (found == std::string::npos) {
    searched_ = std::max(searched_, waiting_.size() - std::min(waiting_.size(), closing_.size()));
    return false;
  }
  end_ = found + closing_.size();
  return true;
}

}  // namespace zell::bench
