// SPDX-License-Identifier: Apache-2.0
// Devices that are reached through an object of this program instead of a socket with a name.
#ifndef RUNEL_IO_DIALER_H_
#define RUNEL_IO_DIALER_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include <runel/async_device.h>

#include "base/unique_fd.h"

namespace runel {
inline namespace v1 {

/// What the peer of a dialed connection has done with it. Both threads use it.
class DialedLine {
 public:
  /// @p bytes of the connection may have reached the device; the rest has not, and never will after
  /// the end of the connection.
  void gave(std::uint64_t bytes);
  [[nodiscard]] std::uint64_t given() const;
  /// Why the connection will end.
  void end(const Error& why);
  [[nodiscard]] std::optional<Error> ended() const;

 private:
  mutable std::mutex mutex_;  // a processor of 32 bits has no atomic numbers of this size
  std::uint64_t given_ = 0;
  std::optional<Error> end_;
};

/// Opens connections that speak the protocol of a master's control socket: one line "attach NAME",
/// the answer "ok" or an `errorLine`, then frames. The peer may tell a `LinkEvent` in place of an
/// answer.
class Dialer {
 public:
  struct Dialed {
    zell::UniqueFd socket;  ///< non-blocking; invalid after a failure, with errno
    std::shared_ptr<DialedLine> line;
  };

  Dialer() = default;
  virtual ~Dialer() = default;
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

  [[nodiscard]] virtual Dialed dial() = 0;
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
