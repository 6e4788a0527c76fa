// SPDX-License-Identifier: Apache-2.0
// Writes the results of the devices to standard output and standard error.
#ifndef RUNELCTL_FLEET_PRINTER_H_
#define RUNELCTL_FLEET_PRINTER_H_

#include <string>
#include <vector>

#include "commands/job.h"
#include "commands/settings.h"
#include "output/report.h"
#include "output/status_line.h"

namespace runelctl {

/// The outcome of one device.
struct Finished {
  std::string device;
  Outcome outcome;
};

class Printer {
 public:
  /// @p many: there are several devices, so all output names its device.
  Printer(const Style& style, Arrange arrange, std::string task, bool many);

  /// Writes output of a single device immediately.
  void stream(std::string_view bytes);
  /// Writes or holds back the output of a device and writes its errors.
  void finished(const Finished& end, const Report& report);
  /// Writes the outputs that were held back for grouping, in the order of @p devices.
  void flush(const std::vector<std::string>& devices);
  /// Writes the summary, if there are several devices.
  void summary(const std::vector<Finished>& ends, std::size_t skipped);
  /// Writes the summary of a dry run, if there are several devices.
  void unsent(std::size_t devices);
  /// Writes a note about the run.
  void note(const std::string& text);

  StatusLine& statusLine() { return statusLine_; }

 private:
  struct Group {
    std::string text;
    std::vector<std::string> devices;
  };

  void printJson(const Finished& end, const Report& report);
  void printText(const std::string& device, const std::string& text);
  void printPrefixed(const std::string& device, const std::string& text);
  void hold(const std::string& device, const std::string& text);
  void show(const Group& group);
  void printError(const std::string& device, const Error& error);
  void printWarning(const std::string& device, const std::string& text);
  void out(std::string_view bytes);
  void err(const std::string& line);

  const Style& style_;
  const Arrange arrange_;
  const std::string task_;
  const bool many_;
  StatusLine statusLine_;
  std::vector<Group> groups_;
};

/// The JSON object that ends the output of a device.
[[nodiscard]] Json closingObject(const std::string& device, const std::string& task,
                                 const Outcome& outcome, const Report& report);

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_PRINTER_H_
