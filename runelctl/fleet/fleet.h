// SPDX-License-Identifier: Apache-2.0
// Runs one command on many devices in parallel, in one loop.
#ifndef RUNELCTL_FLEET_FLEET_H_
#define RUNELCTL_FLEET_FLEET_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <runel/async_device.h>
#include <runel/loop.h>

#include "commands/command.h"
#include "fleet/printer.h"

namespace runelctl {

class Fleet {
 public:
  Fleet(runel::Loop& loop, const Settings& settings, Command& command, Printer& printer,
        const Style& style);
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  /// Uses @p device and its connection, if any, for its target.
  void lend(runel::AsyncDevice& device) { lent_ = &device; }
  /// Runs the command on all devices and returns the highest exit status.
  [[nodiscard]] int run();
  /// Cancels the running devices, skips the others and makes `run` return @p status.
  void cancel(int status);

  [[nodiscard]] const std::vector<Finished>& ends() const { return ends_; }
  /// The targets that did not succeed, in their order.
  [[nodiscard]] std::vector<runel::Address> unfinished() const;

 private:
  struct Member;

  void startSome();
  void start(Member& member);
  void arm(Member& member);
  void showUnsent(Member& member, const std::string& payload) const;
  void showSentLater(Member& member) const;
  void done(Member& member, Outcome outcome);
  void settle(Member& member);
  bool again(Member& member);
  void drop(Member& member);
  void cleanUp(Member& member, const runel::Request& request);
  void removeLeftover(Member& member, const runel::Request& request);
  void conclude(Member& member);
  void endWave();
  void showProgress(bool now);
  [[nodiscard]] std::size_t parallel() const;
  [[nodiscard]] bool stopEarly() const;

  runel::Loop& loop_;
  const Settings& settings_;
  Command& command_;
  Printer& printer_;
  const Style& style_;
  runel::AsyncDevice* lent_ = nullptr;
  std::vector<std::unique_ptr<Member>> members_;
  std::vector<std::size_t> waves_;
  std::size_t waveEnd_ = 0;  // only members before this index may start
  std::size_t wave_ = 0;
  std::size_t next_ = 0;
  std::size_t running_ = 0;
  std::size_t failed_ = 0;
  int cancelled_ = 0;
  std::vector<Finished> ends_;
  ProgressBar bar_;
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_FLEET_H_
