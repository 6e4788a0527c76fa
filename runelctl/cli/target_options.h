// SPDX-License-Identifier: Apache-2.0
// The options that select the devices of a command line.
#ifndef RUNELCTL_CLI_TARGET_OPTIONS_H_
#define RUNELCTL_CLI_TARGET_OPTIONS_H_

#include <string>
#include <vector>

#include <runel/result.h>

#include "cli/gateway_targets.h"
#include "cli/targets.h"
#include "commands/settings.h"
#include "inventory/selector.h"

namespace CLI {
class App;
}  // namespace CLI

namespace runelctl {

class TargetOptions {
 public:
  void define(CLI::App& app, Settings& settings);

  /// Reads the inventory and stores the selected devices and their defaults in @p settings. Options
  /// of the command line take precedence over defaults. Fails with `Kind::local` for an invalid
  /// selection.
  ///
  /// Without a selection, keeps the devices that are in @p settings. If no device is there, selects
  /// those of RUNELCTL_DEVICE, or 127.0.0.1. With @p wholeInventory, selects all devices of the
  /// inventory instead.
  [[nodiscard]] runel::Result<void> read(Settings& settings, bool wholeInventory) const;

 private:
  /// True if the command line selects devices itself.
  [[nodiscard]] bool given() const;
  [[nodiscard]] runel::Result<void> select(Selector& selector) const;
  [[nodiscard]] runel::Result<void> readFromGateway(Settings& settings) const;
  [[nodiscard]] runel::Result<GatewaySelection> gatewaySelection() const;
  [[nodiscard]] runel::Result<void> selectFile(Selector& selector) const;
  [[nodiscard]] runel::Result<void> readFile(std::vector<TargetLine>& targets) const;
  [[nodiscard]] runel::Result<void> reduce(Selector& selector) const;

  std::vector<std::string> devices_;
  std::string file_;
  bool fileGiven_ = false;
  std::vector<std::string> groups_;
  std::vector<std::string> tags_;
  std::vector<std::string> except_;
  bool all_ = false;
};

/// The names of the devices at the master of @p settings, each in a form that -d @NAME takes.
[[nodiscard]] runel::Result<std::vector<std::string>> connectedDevices(const Settings& settings);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_TARGET_OPTIONS_H_
