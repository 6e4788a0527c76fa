// SPDX-License-Identifier: Apache-2.0
// The values of the general options.
#ifndef RUNELCTL_COMMANDS_SETTINGS_H_
#define RUNELCTL_COMMANDS_SETTINGS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <runel/address.h>
#include <runel/async_device.h>

#include "client/io/spool.h"
#include "gateway/gateway_client.h"
#include "inventory/inventory.h"

namespace runelctl {

enum class Arrange { merge, prefix, group };

/// The options of the command line that have precedence over defaults of the inventory.
struct Given {
  bool programLimit = false;
  bool ioTimeout = false;
  bool connectTimeout = false;
  bool deadline = false;
  bool wave = false;
  bool maxFail = false;
  bool gateway = false;
};

struct Settings {
  std::vector<runel::Address> targets;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  bool yes = false;
  bool dryRun = false;   ///< print the requests and send nothing
  bool offline = false;  ///< also for a command that has a plan
  bool plan = false;     ///< print what the command would change, and only read
  bool failFast = false;
  bool jobsGiven = false;
  int jobs = 64;
  int retry = 0;
  bool retryUnsafe = false;
  int maxFail = 0;
  int programLimit = 0;            ///< in seconds, enforced by the device; 0 for none
  bool programLimitGiven = false;  ///< on this command line, not on the one of its session
  double ioTimeout = 30;           ///< in seconds, for the wait for an answer
  double connectTimeout = 10;
  std::optional<double> deadline;  ///< in seconds, for each attempt on a device; 0 for none
  std::string wave;
  std::string retryFailed;
  std::string outputDirectory;
  std::uint64_t memory = std::uint64_t{256} << 20U;  ///< in bytes, for the data of all devices
  std::shared_ptr<runel::Spool> spool;               ///< null before the command line is parsed
  std::string colour = "auto";
  std::string masterSocket;
  GatewayOptions gatewayOptions;
  std::shared_ptr<GatewayClient> gateway;      ///< null without one; devices are reached through it
  std::string inventoryFile;                   ///< of --inventory
  std::shared_ptr<const Inventory> inventory;  ///< nullptr without a file
  Given given;
  /// Timeouts of single devices, by `Address::text`. They replace the ones above.
  std::unordered_map<std::string, Timeouts> timeouts;
  Arrange arrange = Arrange::merge;
  std::string directory;  ///< base of relative remote paths
  bool runThere = false;  ///< programs run in `directory` too

  [[nodiscard]] runel::DeviceOptions limits() const;
  /// The timeouts of the device @p target.
  [[nodiscard]] runel::DeviceOptions limits(const runel::Address& target) const;
  /// The inventory's timeouts of the device @p target that apply.
  [[nodiscard]] Timeouts ownTimeouts(const runel::Address& target) const;
  /// The default limit for a program on the device @p target, in seconds, 0 for none.
  [[nodiscard]] int programLimitOf(const runel::Address& target) const {
    return ownTimeouts(target).program.value_or(programLimit);
  }
  /// Creates the spool for the memory limit.
  void openSpool();
  /// Limit of file content in memory for one device, in bytes. It depends on the number of parallel
  /// devices.
  [[nodiscard]] std::size_t memoryShare() const;
  /// @p path relative to `directory`.
  [[nodiscard]] std::string remote(const std::string& path) const;
};

/// The default path of the master's control socket, in the user's runtime directory.
[[nodiscard]] std::string defaultMasterSocket();

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_SETTINGS_H_
