// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_BENCH_FLOOR_RELAY_H_
#define ZELL_BENCH_FLOOR_RELAY_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "server.h"

namespace zell::bench {

/// Relays clauses from the accepted connection to a second connection to the master: finds the end
/// of each clause and writes the clause with one system call.
class RelayFloor : public FloorServer {
 public:
  using FloorServer::FloorServer;

 protected:
  void receive(int fd, std::string_view bytes) override;
  void forget(int fd) override;
  void connected(int fd) override;

 private:
  void relayAll();
  bool findEnd();

  bool hasSlave_ = false;
  int agent_ = -1;
  int bridge_ = -1;
  std::string waiting_;
  std::size_t start_ = 0;     // of the clause at the head
  std::size_t searched_ = 0;  // end of the bytes already searched for its end
  std::size_t end_ = 0;       // end of the clause that was found
  std::string closing_;       // its closing tag; empty until the opening tag is complete
};

}  // namespace zell::bench

#endif  // ZELL_BENCH_FLOOR_RELAY_H_
