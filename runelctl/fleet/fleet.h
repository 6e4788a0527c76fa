// SPDX-License-Identifier: Apache-2.0
// Runs one command on many devices in parallel, in one loop.
#ifndef RUNELCTL_FLEET_FLEET_H_
#define RUNELCTL_FLEET_FLEET_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <runel/fleet.h>

#include "commands/command.h"
#include "fleet/awaited_devices.h"
#include "fleet/fleet_progress.h"
#include "fleet/folded_lines.h"
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
  void lend(runel::AsyncDevice& device) { fleet_.lend(device); }
  /// Runs the command on all devices and returns the highest exit status. A lack of memory ends it
  /// by std::bad_alloc, after the removal of what the running jobs would leave on their devices.
  [[nodiscard]] int run();
  /// A signal interrupted the run: skips the devices that were not started, and cancels the running
  /// ones, except those whose jobs deal with the signal themselves: see `Job::interrupt`.
  void interrupt(int number);

  [[nodiscard]] const std::vector<Finished>& ends() const { return ends_; }
  /// The names of the devices on which nothing was started.
  [[nodiscard]] std::vector<std::string> skipped() const;
  /// The targets that did not succeed, in their order.
  [[nodiscard]] std::vector<runel::Address> unfinished() const;

 private:
  class Attempt;
  struct Member;

  [[nodiscard]] std::unique_ptr<runel::FleetJob> start(runel::FleetAttempt attempt);
  void openReport(Member& member, std::size_t index);
  void streamReport(Member& member);
  void showUnsent(Member& member, const std::string& payload) const;
  void showSentLater(Member& member, const Job& job) const;
  [[nodiscard]] Outcome outcomeOf(const Member& member, const runel::FleetResult& result) const;
  void explain(Member& member, Error& error) const;
  void conclude(const runel::FleetResult& result);
  void endWave(std::size_t wave, std::size_t failed, bool stopped);
  void endPrograms();
  void addNote(std::size_t index, const std::string& text);
  void showNotes();
  void showProgress(bool now);
  void runToEnd();
  void turn();
  void watch();
  void removeLeftovers() const;

  runel::Loop& loop_;
  const Settings& settings_;
  Command& command_;
  Printer& printer_;
  const Style& style_;
  std::vector<std::unique_ptr<Member>> members_;
  std::size_t started_ = 0;
  std::size_t failed_ = 0;
  bool over_ = false;
  int cancelled_ = 0;
  std::vector<Finished> ends_;
  ProgressBar bar_;
  AwaitedDevices awaited_;
  std::string awaitedText_;  // for the status line
  runel::Clock::time_point watched_;
  FleetProgress progress_;
  FoldedLines notes_;
  runel::Timer notesDue_;
  bool ending_ = false;  // the programs, because standard output is lost
  runel::Timer endingLimit_;
  runel::AsyncFleet fleet_;  // last: its jobs refer to the members
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_FLEET_H_
