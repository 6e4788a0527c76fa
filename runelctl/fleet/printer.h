// SPDX-License-Identifier: Apache-2.0
// Writes the results of the devices to standard output, standard error and files.
#ifndef RUNELCTL_FLEET_PRINTER_H_
#define RUNELCTL_FLEET_PRINTER_H_

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands/job.h"
#include "commands/settings.h"
#include "fleet/failure_list.h"
#include "fleet/output_groups.h"
#include "output/output_files.h"
#include "output/report.h"
#include "output/standard_output.h"
#include "output/status_line.h"

namespace runelctl {

/// The outcome of one device.
struct Finished {
  std::string device;
  Outcome outcome;
  std::size_t index = 0;  ///< of the device in the list of targets
};

class Printer {
 public:
  /// @p many: there are several devices, so all output names its device.
  Printer(const Style& style, Arrange arrange, std::string task, bool many);

  /// Also writes the output of each device to files in @p directory, which must outlive the
  /// printer.
  void keepIn(OutputDirectory& directory) { directory_ = &directory; }

  /// Writes output of the single device @p device immediately.
  void stream(const std::string& device, std::string_view bytes);
  /// Writes output of a running program on the single device immediately.
  void show(std::string_view bytes);
  /// The same on standard error.
  void showError(std::string_view bytes);
  /// Writes lines of @p device immediately, each with its name.
  void showLines(const std::string& device, std::string_view lines);
  /// The same on standard error.
  void showErrorLines(const std::string& device, std::string_view lines);
  /// Writes the line of one object of @p device immediately.
  void showEntry(const std::string& device, const std::string& line);
  /// Adds output of a running program on @p device to the files of the device, if any.
  void keepText(const std::string& device, bool error, std::string_view bytes);
  /// Writes or holds back the output of a device and writes its errors. Moves the output out of @p
  /// report.
  void finished(const Finished& end, Report& report);
  /// Writes the outputs that were held back for grouping, in the order of the devices.
  void flush();
  /// Writes the failed devices and the summary, if there are several devices.
  void summary(const std::vector<Finished>& ends, const std::vector<std::string>& skipped);
  /// Writes the summary of a dry run, if there are several devices.
  void unsent(std::size_t devices);
  /// Writes a note about the run.
  void note(const std::string& text);
  /// Writes an error that is not the failure of a device.
  void problem(const std::string& text);

  /// From now on, the loss of standard output does not end the process: its owner does that.
  void outliveOutput() { outlives_ = true; }
  /// Standard output is lost: nothing is written to it any more. @p error is an error number.
  void loseOutput(int error) { outputError_ = error; }
  [[nodiscard]] bool outputLost() const { return outputError_ != 0; }
  /// Ends the process after the loss of standard output.
  [[noreturn]] void endWithoutOutput();

  /// The names of the devices that have failed so far.
  [[nodiscard]] std::string failedNames() const { return failures_.names(); }
  /// 1 if output was lost, otherwise 0.
  [[nodiscard]] int status() const { return status_; }
  StatusLine& statusLine() { return statusLine_; }

 private:
  void printJson(const Finished& end, Report& report);
  void printText(const Finished& end, Report& report);
  void printPrefixed(const std::string& device, const runel::HeldBytes& text);
  void printUnder(const std::string& heading, const runel::HeldBytes& text);
  void printErrors(const Finished& end, const Report& report);
  [[nodiscard]] bool toldAtTheEnd(const Outcome& outcome) const;
  [[nodiscard]] std::string failureText(const Outcome& outcome) const;
  void showTable();
  void tellFailures(const std::vector<std::string>& skipped);
  void keep(const std::string& device, const runel::HeldBytes& text);
  [[nodiscard]] OutputFiles* files(const std::string& device);
  [[nodiscard]] std::string prefixed(const std::string& device, std::string_view lines) const;
  void closeFiles(const std::string& device);
  void out(std::string_view bytes);
  void outHeld(const runel::HeldBytes& text);
  void pass(const runel::HeldBytes& text, const std::function<void(std::string_view)>& use);
  void lostText();
  void endText();
  void written(bool success);
  void err(const std::string& line);

  const Style& style_;
  const Arrange arrange_;
  const std::string task_;
  const bool many_;
  StandardOutput output_;
  StandardError errors_;
  StatusLine statusLine_;
  OutputGroups groups_;
  std::map<std::size_t, std::pair<std::string, std::vector<Cell>>> rows_;  // by index
  FailureList failures_;
  OutputDirectory* directory_ = nullptr;
  std::unique_ptr<OutputFiles> files_;  // of the device whose output is being written
  bool filesTried_ = false;
  std::set<std::string> unkept_;  // devices whose files cannot be written
  int status_ = 0;
  int outputError_ = 0;
  bool outlives_ = false;
};

/// The fields of @p outcome in the last object of a device.
[[nodiscard]] Json endingFields(const Outcome& outcome);

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_PRINTER_H_
