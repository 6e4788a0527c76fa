// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_AGENT_BUSY_H_
#define ZELL_AGENT_BUSY_H_

#include "agent/runel.h"
#include "connections/runel_connection.h"

namespace zell {

/// Keeps dropped handlers alive until the current handler call returns.
class Runel::Busy {
 public:
  explicit Busy(Runel& server) : server_(server) { ++server_.busy_; }
  ~Busy() {
    if (--server_.busy_ == 0) {
      server_.retired_.clear();
    }
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  Runel& server_;
};

}  // namespace zell

#endif  // ZELL_AGENT_BUSY_H_
