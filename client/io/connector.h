// SPDX-License-Identifier: Apache-2.0
// Connects to a device: directly to its port, or through the master that it is connected to.
#ifndef RUNEL_IO_CONNECTOR_H_
#define RUNEL_IO_CONNECTOR_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <runel/address.h>
#include <runel/error.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/io/dialer.h"

namespace runel {

/// One connection attempt. Destroying it cancels the attempt; the handler may destroy it.
class Connector {
 public:
  /// Exactly one of the two arguments has a value.
  using Done = std::function<void(zell::UniqueFd socket, std::optional<Error> error)>;

  /// @p options have the connect timeout and, for targets behind a master, the path of its control
  /// socket or the dialer.
  Connector(Loop& loop, const Address& address, const DeviceOptions& options, Done done);
  ~Connector();
  /// Of a dialed connection; null for another.
  [[nodiscard]] const std::shared_ptr<DialedLine>& line() const { return line_; }
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

 private:
  void start();
  void resolveName();
  void connectTcp(in_addr host);
  void connectMaster();
  void dial();
  void watchConnect();
  void connected();
  void sendGreeting();
  void readGreeting();
  void succeed();
  void fail(Error error);
  void failConnect(int number);

  Loop& loop_;
  const Address address_;
  const std::string masterSocket_;
  const std::shared_ptr<Dialer> dialer_;  // null for a master with a control socket
  std::shared_ptr<DialedLine> line_;
  Done done_;
  zell::UniqueFd socket_;
  std::string greeting_;
  Timer start_;
  Timer limit_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

/// No master listens on the control socket @p socket: connecting failed with @p number.
[[nodiscard]] Error noMaster(const std::string& socket, int number);

/// Sets the options of a task connection: no delay for small packets, and keepalive probes that
/// detect a dead peer.
void setTaskOptions(int socket);

}  // namespace runel

#endif  // RUNEL_IO_CONNECTOR_H_
