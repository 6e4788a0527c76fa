// SPDX-License-Identifier: Apache-2.0
// The options that every command understands.
#ifndef ZELL_RUNELCTL_COMMANDS_SETTINGS_H_
#define ZELL_RUNELCTL_COMMANDS_SETTINGS_H_

#include <string>
#include <vector>

#include "client/address.h"
#include "client/device.h"

namespace zell::ctl {

enum class Arrange { merge, prefix, group };

struct Settings {
  std::vector<Target> targets;
  bool json = false;
  bool quiet = false;
  bool yes = false;
  bool dryRun = false;
  bool failFast = false;
  bool jobsGiven = false;
  int jobs = 64;
  int retry = 0;
  int maxFail = 0;
  double timeout = 30;
  double connectTimeout = 10;
  double deadline = 0;  ///< for all of the work on one device; 0 for none
  std::string wave;
  std::string retryFailed;
  std::string colour = "auto";
  std::string masterSocket;
  Arrange arrange = Arrange::merge;
  std::string folder;  ///< the remote folder that relative remote paths start from

  [[nodiscard]] Limits limits() const;
  /// Bytes of content that one device's work may keep in memory, so that many have room.
  [[nodiscard]] std::size_t memoryShare() const;
  /// A remote path as the device should get it.
  [[nodiscard]] std::string remote(const std::string& path) const;
};

/// Where the master's control socket is unless told otherwise: in the user's runtime folder.
[[nodiscard]] std::string defaultMasterSocket();

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_SETTINGS_H_
