// SPDX-License-Identifier: Apache-2.0
// Devices that are reached through an object of this program instead of a socket with a name.
#ifndef RUNEL_IO_DIALER_H_
#define RUNEL_IO_DIALER_H_

#include <memory>

#include <runel/async_device.h>

#include "base/unique_fd.h"

namespace runel {
inline namespace v1 {

/// Opens connections that speak the protocol of a master's control socket: one line "attach NAME",
/// the answer "ok" or an `errorLine`, then frames. The peer may tell a `LinkEvent` in place of an
/// answer.
class Dialer {
 public:
  Dialer() = default;
  virtual ~Dialer() = default;
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

  /// A connected, non-blocking socket. Without one, with errno, on failure. Called in any thread.
  [[nodiscard]] virtual zell::UniqueFd dial() = 0;
};

/// The dialer of a device: its devices behind a master are reached through it.
class DeviceDialer {
 public:
  static void set(DeviceOptions& options, std::shared_ptr<Dialer> dialer);
  [[nodiscard]] static const std::shared_ptr<Dialer>& of(const DeviceOptions& options);
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_IO_DIALER_H_
