// SPDX-License-Identifier: Apache-2.0
// Serves a socket on which the master sends tasks.
#ifndef ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_
#define ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_

#include <memory>
#include <string>

#include <zell/byte_count_protocol.h>
#include <zell/slave_task.h>

#include "connections/runel_connection.h"
#include "tasks/tasks.h"

namespace zell {

/// Runs the tasks of a socket one after the other, and replies to each before it reads the next. A
/// slow task blocks the whole daemon.
class ByteCountSlave : public RunelConnection {
 public:
  /// Serves @p socket; its proxy becomes the one that drives the LEDs.
  explicit ByteCountSlave(int socket);
  ~ByteCountSlave() override;

  bool inputPending() override;
  void handleMessage(std::string& packet) override;
  /// True for good after "restart" or "reboot".
  bool stopRequested() override;

  /// Runs @p task. Returns the reply, which the caller owns, or null when no reply is sent.
  SlaveTask* dispatchTask(const SlaveTask& task);

 private:
  void runMessage(std::string& message);
  void send(const SlaveTask& reply);

  std::unique_ptr<ByteCountProtocol> codec_;
  Tasks tasks_;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_
