// SPDX-License-Identifier: Apache-2.0
// One simulated device: a connection to a master, and answers without any work.
#ifndef BENCH_FLEET_DEVICE_H_
#define BENCH_FLEET_DEVICE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <netinet/in.h>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"

namespace runel::bench {

/// What all devices of a simulation share.
struct Simulation {
  Loop& loop;
  sockaddr_in master{};
  Milliseconds reconnect{100};      ///< pause before a lost device connects again
  std::uint64_t connects = 0;       ///< ever
  std::uint64_t connected = 0;      ///< now
  std::uint64_t answered = 0;       ///< requests
  std::uint64_t bytesReceived = 0;  ///< of requests
  std::uint64_t bridgeFrames = 0;   ///< data on a connection that must never get any
};

/// Connects from its own address, and connects again when the connection is lost.
class Device {
 public:
  /// @p delay passes before each answer.
  Device(Simulation& simulation, in_addr address, std::string hostid, Milliseconds delay);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  void connect();
  /// Closes the connection. With @p silent, the device stays away; otherwise it connects again.
  void drop(bool silent);
  /// Opens the bridge of an agent, and sends @p clause on it. Only for a connected device.
  void sendClause(const std::string& clause);

 private:
  void tryAgain();
  void opened();
  void receive(std::string&& payload);
  void answer(const std::string& request);
  void lost();
  [[nodiscard]] zell::UniqueFd connectedSocket() const;

  Simulation& simulation_;
  const in_addr address_;
  const std::string hostid_;
  const Milliseconds delay_;
  bool away_ = true;
  std::unique_ptr<Channel> channel_;
  zell::UniqueFd bridge_;
  Timer again_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runel::bench

#endif  // BENCH_FLEET_DEVICE_H_
