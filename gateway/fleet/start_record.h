// SPDX-License-Identifier: Apache-2.0
// Whether the process before this one ended orderly.
#ifndef RUNELGW_FLEET_START_RECORD_H_
#define RUNELGW_FLEET_START_RECORD_H_

#include <string>

#include <runel/result.h>

namespace runelgw {

/// A file that says that the last process has ended while the system kept running, so that the
/// system has closed its connections and the devices know it. The stop hook of the supervisor
/// writes it after the end of the process; the next start takes it. After a start without it, a
/// device may still keep its old connection for about a minute, and its next one may be a bridge.
class StartRecord {
 public:
  /// @p path is the file. @p bootId names the file with the identifier of this boot of the system.
  explicit StartRecord(std::string path, std::string bootId = "/proc/sys/kernel/random/boot_id");

  /// Notes that the process has ended. Fails with a sentence.
  [[nodiscard]] runel::Result<void> noteOrderlyEnd() const;

  /// Whether the end was noted in this boot. Removes the file: a second call returns false, also
  /// after a crash. Returns false too if the file cannot be removed for good.
  [[nodiscard]] bool takeOrderlyEnd() const;

 private:
  [[nodiscard]] std::string content() const;

  const std::string path_;
  const std::string bootId_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_START_RECORD_H_
