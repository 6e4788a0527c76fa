// SPDX-License-Identifier: Apache-2.0
// The ways to the devices: a master of librunel without a gateway, and what the gateway offers.
#ifndef BENCH_GATEWAY_WAYS_H_
#define BENCH_GATEWAY_WAYS_H_

#include <cstddef>
#include <memory>
#include <string>

#include <netinet/in.h>

#include <runel/loop.h>

#include "traffic.h"

namespace runel::bench {

struct Target {
  sockaddr_in address{};  ///< of the gateway, or to listen on
  bool tls = false;
  std::string token;   ///< a line with the secret
  std::string prefix;  ///< names are the prefix and a number of six digits
  std::string device;  ///< the name of the only device, instead of a prefix
  std::size_t devices = 1;
  std::size_t connections = 1;  ///< of HTTP
};

/// The name of the device @p number.
[[nodiscard]] std::string nameOf(const Target& target, std::size_t number);
/// The record of the request that is measured.
[[nodiscard]] std::string requestRecord();

/// Waits until as many devices have connected. Their numbers are not those of their names.
[[nodiscard]] std::unique_ptr<Way> directWay(Loop& loop, const Target& target);
/// One request of the API at a time on each connection.
[[nodiscard]] std::unique_ptr<Way> httpWay(Loop& loop, const Target& target);
/// All devices over one WebSocket.
[[nodiscard]] std::unique_ptr<Way> attachWay(Loop& loop, const Target& target);

}  // namespace runel::bench

#endif  // BENCH_GATEWAY_WAYS_H_
