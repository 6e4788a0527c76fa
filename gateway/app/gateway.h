// SPDX-License-Identifier: Apache-2.0
// The gateway: all parts, and how they start and end.
#ifndef RUNELGW_APP_GATEWAY_H_
#define RUNELGW_APP_GATEWAY_H_

#include <memory>

#include <runel/result.h>

#include "gateway/app/log.h"
#include "gateway/config/settings.h"

namespace runelgw {

/// Why a gateway has ended.
enum class GatewayEnd {
  stopped,  ///< by a signal
  restart,  ///< a restored database waits for it: start a new one
};

/// One life of the gateway in this process.
class Gateway {
 public:
  /// @p log must outlive it.
  Gateway(Settings settings, const Log& log);
  /// Closes everything, the connections of the devices last.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  /// Opens the database and all sockets, and tells the supervisor. BLOCKS. The error is one
  /// sentence.
  [[nodiscard]] runel::Result<void> open();
  /// Works until SIGTERM or SIGINT.
  [[nodiscard]] GatewayEnd run();

 private:
  class Data;
  std::unique_ptr<Data> data_;
};

/// After a gateway that has ended for a restart is destroyed: puts the restored database in the
/// place of the present one, and notes that the end was orderly. The error is one sentence.
[[nodiscard]] runel::Result<void> finishRestore(const Settings& settings);

/// Notes an orderly end, for the next start.
[[nodiscard]] runel::Result<void> noteOrderlyEnd(const Settings& settings);

}  // namespace runelgw

#endif  // RUNELGW_APP_GATEWAY_H_
