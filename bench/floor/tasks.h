// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_BENCH_FLOOR_TASKS_H_
#define ZELL_BENCH_FLOOR_TASKS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "server.h"

namespace zell::bench {

/// Runs the few tasks of the workloads, each with only the system calls that it needs.
class TaskFloor : public FloorServer {
 public:
  explicit TaskFloor(int masterPort) : FloorServer(masterPort), inboxes_(FD_SETSIZE) {}

 protected:
  void receive(int fd, std::string_view bytes) override;
  void forget(int fd) override { inboxes_[static_cast<std::size_t>(fd)] = Inbox(); }

 private:
  // A partly received frame.
  struct Inbox {
    bool inHeader = true;
    std::size_t count = 0;  // length of the payload
    std::string payload;    // the part of it in earlier packets
  };

  static std::string_view takeHeader(Inbox& inbox, std::string_view bytes);

  std::vector<Inbox> inboxes_;  // by descriptor
};

}  // namespace zell::bench

#endif  // ZELL_BENCH_FLOOR_TASKS_H_
