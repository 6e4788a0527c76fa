// SPDX-License-Identifier: Apache-2.0
// The connection of this process to a gateway.
#ifndef RUNELCTL_GATEWAY_GATEWAY_CLIENT_H_
#define RUNELCTL_GATEWAY_GATEWAY_CLIENT_H_

#include <memory>
#include <string>
#include <vector>

#include <runel/result.h>

#include "client/io/dialer.h"
#include "gateway/attach_message.h"
#include "gateway/gateway_settings.h"

namespace runelctl {

/// Serves devices in a separate thread, so that they can be used in any loop, and without one.
/// Connects when the first device is used.
class GatewayClient : public runel::Dialer {
 public:
  /// Fails with `Kind::local` for invalid options, and for a program that was built without its
  /// libraries.
  [[nodiscard]] static runel::Result<std::shared_ptr<GatewayClient>> create(
      const GatewayOptions& options, runel::Milliseconds connectTimeout,
      runel::Milliseconds ioTimeout);
  ~GatewayClient() override;

  [[nodiscard]] Dialed dial() override;
  /// The devices that match @p query, in the order of their names. BLOCKS, for @p limit at most.
  [[nodiscard]] runel::Result<std::vector<ListedDevice>> list(const std::string& query,
                                                              runel::Milliseconds limit);
  [[nodiscard]] std::string url() const;
  /// Whether it was created with @p options.
  [[nodiscard]] bool uses(const GatewayOptions& options) const { return options == options_; }

 private:
  struct Service;

  GatewayClient(GatewayOptions options, const GatewaySettings& settings);

  const GatewayOptions options_;
  std::shared_ptr<Service> service_;  // shared with the thread
};

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_GATEWAY_CLIENT_H_
