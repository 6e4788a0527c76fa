// SPDX-License-Identifier: Apache-2.0
// The connections of all devices: listening, roles, identities, and a queue of requests for each.
#ifndef RUNELGW_LINK_DEVICE_LINK_H_
#define RUNELGW_LINK_DEVICE_LINK_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <runel/loop.h>
#include <runel/request.h>
#include <runel/result.h>

#include "gateway/core/outcome.h"
#include "gateway/core/payload_spool.h"
#include "gateway/core/router.h"
#include "gateway/link/link_observer.h"

namespace runelgw {

/// How devices are listened for.
struct LinkSettings {
  struct Listen {
    std::string host = "127.0.0.1";
    std::uint16_t port = 5112;  ///< 0: chosen by the system
  };
  std::vector<Listen> listen{Listen()};
  /// Networks (ADDRESS or ADDRESS/BITS) of proxies, which begin each connection with a header of
  /// the PROXY protocol, version 2. Others never do.
  std::vector<std::string> proxies;
  /// Networks that may connect; empty for all.
  std::vector<std::string> allowedAddresses;
  /// Networks with several devices at one address: there a connection that is silent for
  /// `sharedSilence` is the task connection of a further device.
  std::vector<std::string> sharedAddresses;
  runel::Milliseconds sharedSilence{10000};
  /// So many connections that must not be used are held open; further ones are closed.
  std::size_t mostSilent = 16384;
  /// Identities are requested from so many devices a second; 0 for any number.
  std::size_t identifyPerSecond = 1000;
  /// The longest time without a byte while an answer is due. An "exec" adds its limit.
  runel::Milliseconds ioTimeout{30000};
  /// The most requests of one device that wait, the current one included.
  std::size_t queueLength = 64;
};

/// Counters for metrics. Those of times are since the start.
struct LinkCounters {
  std::size_t connected = 0;     ///< devices that have told their identity and are not silenced
  std::size_t bound = 0;         ///< of them, those with a device identifier
  std::size_t silent = 0;        ///< connections that are held open and silent
  std::size_t additional = 0;    ///< bridges and surplus connections
  std::size_t unidentified = 0;  ///< connections that wait for their turn to be identified
  std::size_t queued = 0;        ///< requests without an answer
  std::size_t busyDevices = 0;   ///< devices with such requests
  std::uint64_t bytesToDevices = 0;
  std::uint64_t bytesFromDevices = 0;
  std::uint64_t retries = 0;  ///< requests that were sent again after a loss
  std::uint64_t spooled = 0;  ///< bytes that the temporary file holds now
  /// Ended requests, by the name of the task ("other" for an unknown one) and the outcome.
  std::map<std::pair<std::string, Outcome>, std::uint64_t> requests;
};

/// Holds the connections of the devices and passes requests on to them.
class DeviceLink : public Router, public LinkControl {
 public:
  /// @p loop and @p observer must outlive it. @p spool gets the large answers.
  DeviceLink(runel::Loop& loop, LinkSettings settings, std::shared_ptr<PayloadSpool> spool,
             LinkObserver& observer);
  ~DeviceLink() override;

  /// Opens the ports. Fails with a sentence that names the address.
  [[nodiscard]] runel::Result<void> open();
  /// The listening ports, in the order of the settings.
  [[nodiscard]] std::vector<std::uint16_t> ports() const;
  /// Ends all calls with `Reason::stopping`, and accepts no further ones. Keeps the connections.
  void stop();

  void bind(const Place& place, DeviceId device) override;
  void silence(const Place& place, Reason reason) override;

  CallId send(Call call, Done done) override;
  void cancel(CallId id) override;
  [[nodiscard]] QueueState queue(DeviceId device) const override;
  [[nodiscard]] runel::Result<void> sendClause(DeviceId device, const std::string& clause) override;

  [[nodiscard]] LinkCounters counters() const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_LINK_DEVICE_LINK_H_
