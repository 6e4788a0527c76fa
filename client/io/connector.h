// SPDX-License-Identifier: Apache-2.0
// Connects to a device: directly to its port, or through the master that it is connected to.
#ifndef RUNEL_IO_CONNECTOR_H_
#define RUNEL_IO_CONNECTOR_H_

#include <functional>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "client/core/address.h"
#include "client/core/error.h"
#include "client/io/loop.h"

namespace runel {

/// One connection attempt. Destroying it cancels the attempt; the handler may destroy it.
class Connector {
 public:
  /// Exactly one of the two arguments has a value.
  using Done = std::function<void(zell::UniqueFd socket, std::optional<Error> error)>;

  /// @p masterSocket is the path of the master's control socket, for targets behind a master.
  Connector(Loop& loop, const Target& target, std::string masterSocket, Milliseconds limit,
            Done done);
  ~Connector();
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

 private:
  void start();
  void connectTcp();
  void connectMaster();
  void watchConnect();
  void connected();
  void sendGreeting();
  void readGreeting();
  void succeed();
  void fail(Error error);
  void failConnect(int number);

  Loop& loop_;
  const Target target_;
  const std::string masterSocket_;
  Done done_;
  zell::UniqueFd socket_;
  std::string greeting_;
  Loop::Timer start_;
  Loop::Timer limit_;
};

/// Sets the options of a task connection: no delay for small packets, and keepalive probes that
/// detect a dead peer.
void setTaskOptions(int socket);

}  // namespace runel

#endif  // RUNEL_IO_CONNECTOR_H_
