// SPDX-License-Identifier: Apache-2.0
// Makes the connection to a device: to its own port, or through the master that it dialled.
#ifndef ZELL_RUNELCTL_CLIENT_CONNECTOR_H_
#define ZELL_RUNELCTL_CLIENT_CONNECTOR_H_

#include <functional>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "client/address.h"
#include "client/error.h"
#include "client/loop.h"

namespace zell::ctl {

/// One attempt. Destroying it gives it up; its handler may do that.
class Connector {
 public:
  /// Exactly one of the two has a value.
  using Done = std::function<void(UniqueFd socket, std::optional<Error> error)>;

  /// @p masterSocket is the path of the master's control socket, for targets behind one.
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
  UniqueFd socket_;
  std::string greeting_;
  Loop::Timer start_;
  Loop::Timer limit_;
};

/// Sets the options of a connection that carries tasks: no delay for small packets, and probes that
/// notice a peer which went away without a word.
void setTaskOptions(int socket);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_CONNECTOR_H_
